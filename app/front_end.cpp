#include "app/front_end.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "app/output.h"
#include "app/request_description.h"
#include "app/response_reservation.h"
#include "app/usage.h"
#include "net/web_request.h"

namespace webreq {

namespace {

constexpr int kHandled = 0;
constexpr int kNoDescription = -1;  // the process ends with status 255
constexpr std::int32_t kNotPerformed = -1;

bool isMarker(const char* argument) { return std::strstr(argument, "-web") != nullptr; }

bool hasMarker(int argumentCount, const char* const* arguments) {
  for (int i = 1; i < argumentCount; ++i) {
    if (isMarker(arguments[i])) return true;
  }
  return false;
}

// Null when no marker has an argument behind it.
const char* findRequestDescription(int argumentCount, const char* const* arguments) {
  for (int i = 1; i + 1 < argumentCount; ++i) {
    if (isMarker(arguments[i])) return arguments[i + 1];
  }
  return nullptr;
}

void writeResultLine(std::int32_t result) {
  std::array<char, 16> line;
  std::snprintf(line.data(), line.size(), "%d\n", result);
  writeToStandardOutput(line.data());
}

void writeBody(std::string_view body) {
  if (writeToStandardOutput(body)) writeToStandardOutput("\n");
}

std::int32_t performDescribedRequest(const char* text, std::string& response, std::string& outputFile) noexcept {
  try {
    RequestDescription description = parseRequestDescription(text);
    if (description.parameters.empty()) return kNotPerformed;
    outputFile = std::move(description.outputFile);
    reserveResponse(response);
    return reqkit::executeWebRequest(response, description.parameters);
  } catch (...) {
    return kNotPerformed;
  }
}

// From the result line on nothing allocates: the answer gets out even when memory has run out.
void answerRequest(const char* text) noexcept {
  std::string response;
  std::string outputFile;
  const std::int32_t result = performDescribedRequest(text, response, outputFile);
  writeResultLine(result);
  if (!outputFile.empty()) {
    writeOutputFile(outputFile, response);
  } else if (!response.empty()) {
    writeBody(response);
  }
}

void printBanner() {
  writeToStandardOutput(makeBannerLine().data());
  writeToStandardOutput("\n");
}

void printUsage() {
  for (const std::string_view line : kUsageLines) writeToStandardOutput(line);
}

}  // namespace

int runCommandLine(int argumentCount, const char* const* arguments) noexcept {
  if (!hasMarker(argumentCount, arguments)) printBanner();
  const char* const description = findRequestDescription(argumentCount, arguments);
  if (description == nullptr) {
    printUsage();
    return kNoDescription;
  }
  answerRequest(description);
  return kHandled;
}

}  // namespace webreq
