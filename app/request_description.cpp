#include "app/request_description.h"

#include <cstddef>
#include <vector>

#include "text/strings.h"

namespace webreq {

namespace {

enum Field : std::size_t { kUrl, kParam, kCmd, kHeader, kAgent, kTimeout, kOutfile };

// Bars after the description, so that every field exists however few the caller wrote. Six would do.
const char* const kFurtherFields = "|||||||||||";

void setUnlessEmpty(reqkit::RequestParameters& parameters, char key, const std::string& value) {
  if (!value.empty()) parameters[key] = value;
}

bool beginsWithP(const std::string& command) { return command.find_first_of("Pp") == 0; }

reqkit::RequestParameters toParameters(const std::vector<std::string>& fields) {
  reqkit::RequestParameters parameters = {{'u', fields[kUrl]}, {'t', "2000"}, {'c', "g"}};
  setUnlessEmpty(parameters, 'p', fields[kParam]);
  // Callers rely on this: a CMD of POST overwrites the parameter string, never the method.
  if (beginsWithP(fields[kCmd])) parameters['p'] = 'p';
  setUnlessEmpty(parameters, 'h', fields[kHeader]);
  setUnlessEmpty(parameters, 'a', fields[kAgent]);
  setUnlessEmpty(parameters, 't', fields[kTimeout]);
  return parameters;
}

}  // namespace

RequestDescription parseRequestDescription(const std::string& text) {
  std::vector<std::string> fields;
  reqkit::splitString(text + kFurtherFields, '|', fields, true);
  if (fields[kUrl].empty()) return {};
  return {toParameters(fields), fields[kOutfile]};
}

}  // namespace webreq
