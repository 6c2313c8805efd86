#include "app/front_end.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "app/request_description.h"
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

// Waits as long as a blocking descriptor would.
void awaitWritable(int descriptor) {
  pollfd entry = {descriptor, POLLOUT, 0};
  poll(&entry, 1, -1);
}

// Writes without stdio, which needs memory for its buffer and loses bytes where a signal or a non-blocking pipe
// interrupts it. Returns false when the rest can't be written.
bool writeAll(int descriptor, std::string_view bytes) {
  constexpr std::size_t kLargestWrite = std::size_t{1} << 30U;  // macOS refuses more than INT_MAX bytes
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), std::min(bytes.size(), kLargestWrite));
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (written < 0 && errno == EAGAIN) {
      awaitWritable(descriptor);
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

void writeLine(std::string_view line) { writeAll(STDOUT_FILENO, line); }

int openOutputFile(const std::string& path) {
  int descriptor = -1;
  do {
    descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  } while (descriptor == -1 && errno == EINTR);
  return descriptor;
}

// A file that can't be opened or written is skipped: the caller has its result line and finds out by the file.
void writeOutputFile(const std::string& path, std::string_view body) {
  const int descriptor = openOutputFile(path);
  if (descriptor == -1) return;
  writeAll(descriptor, body);
  close(descriptor);
}

void writeResultLine(std::int32_t result) {
  std::array<char, 16> line;
  std::snprintf(line.data(), line.size(), "%d\n", result);
  writeLine(line.data());
}

void writeBody(std::string_view body) {
  if (writeAll(STDOUT_FILENO, body)) writeLine("\n");
}

std::int32_t performRequest(const char* text, std::string& response, std::string& outputFile) noexcept {
  try {
    RequestDescription description = parseRequestDescription(text);
    if (description.parameters.empty()) return kNotPerformed;
    outputFile = std::move(description.outputFile);
    return reqkit::executeWebRequest(response, description.parameters);
  } catch (...) {
    return kNotPerformed;
  }
}

// From the result line on nothing here allocates memory, so the answer gets out even when there is none left.
void answerRequest(const char* text) noexcept {
  std::string response;
  std::string outputFile;
  const std::int32_t result = performRequest(text, response, outputFile);
  writeResultLine(result);
  if (!outputFile.empty()) {
    writeOutputFile(outputFile, response);
  } else if (!response.empty()) {
    writeBody(response);
  }
}

void printBanner() {
  writeLine(makeBannerLine().data());
  writeLine("\n");
}

void printUsage() {
  for (const std::string_view line : kUsageLines) writeLine(line);
}

// A root folder without devices has itself at least, and nothing can be written to that either.
void occupyLowestDescriptor() {
  if (open("/dev/null", O_RDWR) == -1) open("/", O_RDONLY);
}

}  // namespace

void prepareProcess() {
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1) occupyLowestDescriptor();  // which is this one
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

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
