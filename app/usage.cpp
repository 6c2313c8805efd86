#include "app/usage.h"

#include <cstdio>

namespace webreq {

namespace {

constexpr const char* kToolName = "webreq";
constexpr const char* kVersion = "41";  // major and minor, a digit each
constexpr const char* kRevision = "47";
constexpr const char* kBuildDate = "20251001";
constexpr const char* kLibraryName = "reqkit";
constexpr const char* kLibraryVersion = "4.1.6";

}  // namespace

BannerLine makeBannerLine() noexcept {
  BannerLine line;
  std::snprintf(line.data(), line.size(), "%s v%c.%s.%s (%s) / %s %s\n", kToolName, kVersion[0], kVersion + 1,
                kRevision, kBuildDate, kLibraryName, kLibraryVersion);
  return line;
}

const std::array<std::string_view, 11> kUsageLines = {
    "\n",
    "-web URL|PARAM|CMD|HEADER|AGENT|TIMEOUT|OUTFILE \t executes a web request with the given parameters\n",
    "\tURL is the full server URL to access, prefixed with either \"http://\" or \"https://\"\n",
    "\tPARAMS is the param string to be sent to the server in the standard URL encoded form like this "
    "\"param1=abc&param2=def\"\n",
    "\tCMD is to be set to \"p\" for POST or \"g\" for GET operation, default is \"g\"\n",
    "\tHEADER is a list of header fields to set for the request in the format \"header1: val1\\r\\nheader2; val2\"\n",
    "\tAGENT is the user agent, default is \"Mozilla/5.0\"\n",
    "\tTIMEOUT is the timeout in milliseconds, default is 20000\n",
    "\tOUTFILE is the output file for the response, default is empty (meaning output to console)\n",
    "\tOnly URL parameter is mandatory, for all others the default values apply\n",
    "\tReturned value is HTTP return code on one line, followed by the complete response (only if OUTFILE is empty)\n",
};

}  // namespace webreq
