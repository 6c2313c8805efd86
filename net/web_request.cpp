#include "net/web_request.h"

#include <cstdlib>
#include <vector>

#include "text/strings.h"

namespace reqkit {

namespace {

constexpr std::int32_t kNoHandle = 99;
constexpr std::int32_t kException = -1;

struct Request {
  char method;
  std::string url;
  std::string headerText;
  std::string parameterString;
  std::string userAgent;
};

Request readRequest(RequestParameters& parameters) {
  Request request;
  request.method = parameters['c'].c_str()[0];
  request.url = parameters['u'];
  request.headerText = parameters['h'];
  request.parameterString = parameters['p'];
  request.userAgent = parameters['a'];
  return request;
}

// The command line never posts; callers of the library do.
bool isPost(const Request& request) { return request.method == 'p'; }

// A URL that already has a query gets a second "?": the caller's URL is not looked into. "-" stands for "no query".
void moveParametersToQuery(Request& request) {
  if (isPost(request) || request.parameterString.empty() || request.parameterString == "-") return;
  request.url += "?" + request.parameterString;
  request.parameterString.clear();
}

// Widens without the sign: libcurl gets a negative time-out as 2^32 plus it. Some versions refuse that and keep their
// default, others take it (docs/reliability.md).
long toTimeOut(std::int32_t seconds) { return static_cast<long>(static_cast<std::uint32_t>(seconds)); }

// libcurl reads a long from its variable arguments: an int would leave half of it undefined on some systems.
void setNumber(CURL* handle, CURLoption option, long value) { curl_easy_setopt(handle, option, value); }

void setRequestOptions(CURL* handle, const Request& request, RequestParameters& parameters, std::string& response) {
  curl_easy_setopt(handle, CURLOPT_URL, request.url.c_str());
  setNumber(handle, CURLOPT_POST, isPost(request) ? 1 : 0);
  // Looked up only here: without a handle the caller's map gets no "t".
  const std::int32_t milliseconds = std::atoi(parameters['t'].c_str());
  setNumber(handle, CURLOPT_CONNECTTIMEOUT, toTimeOut(milliseconds / 1000));
  setNumber(handle, CURLOPT_TIMEOUT, toTimeOut(milliseconds / 500));
  if (!request.userAgent.empty()) curl_easy_setopt(handle, CURLOPT_USERAGENT, request.userAgent.c_str());
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, writeResponseData);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, &response);
  setNumber(handle, CURLOPT_FOLLOWLOCATION, 1);
  // Part of the contract: libcurl asks whether to go on, and the answer never changes.
  setNumber(handle, CURLOPT_NOPROGRESS, 0);
  curl_easy_setopt(handle, CURLOPT_XFERINFOFUNCTION, continueTransfer);
  // libcurl doesn't copy the body: request.parameterString has to outlive the transfer.
  if (isPost(request)) curl_easy_setopt(handle, CURLOPT_POSTFIELDS, request.parameterString.c_str());
}

// A header line has a colon, and not as its first byte. The index is 32 bits wide and signed.
bool isHeaderLine(const std::string& line) { return static_cast<std::int32_t>(line.find(':')) > 0; }

curl_slist* makeHeaderList(const std::string& headerText) {
  std::vector<std::string> lines;
  // A carriage return ends the last line, too; the empty piece behind it is dropped.
  splitString(headerText + "\r", '\r', lines, false);
  curl_slist* list = nullptr;
  for (std::string& line : lines) {
    if (!isHeaderLine(line)) continue;
    line = replaceAll(line, "\\s", " ");
    list = curl_slist_append(list, line.c_str());
  }
  return list;
}

// By design, for every request: neither the issuer of the server's certificate nor the name in it is checked.
void turnVerificationOff(CURL* handle) {
  setNumber(handle, CURLOPT_SSL_VERIFYPEER, 0);
  setNumber(handle, CURLOPT_SSL_VERIFYHOST, 0);
}

std::int32_t readStatusCode(CURL* handle) {
  long status = 0;
  curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &status);
  return static_cast<std::int32_t>(status);
}

// The results of set-up calls are not examined: what libcurl refuses stays at its default, and the transfer itself
// tells whether the request can be performed.
//
// An exception passes through here with the handle, the header list and libcurl's global state left as they are:
// memory has run out and the process is about to end, so no further call is made into libcurl. Owning wrappers would
// make those calls.
std::int32_t performTransfer(std::string& response, RequestParameters& parameters) {
  Request request = readRequest(parameters);
  response.clear();
  moveParametersToQuery(request);
  curl_global_init(CURL_GLOBAL_ALL);
  CURL* const handle = curl_easy_init();
  if (handle == nullptr) {
    curl_global_cleanup();
    return kNoHandle;
  }
  setRequestOptions(handle, request, parameters, response);
  curl_slist* const headers = makeHeaderList(request.headerText);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, headers);
  turnVerificationOff(handle);
  const CURLcode outcome = curl_easy_perform(handle);
  curl_slist_free_all(headers);
  const std::int32_t result = outcome == CURLE_OK ? readStatusCode(handle) : static_cast<std::int32_t>(outcome);
  curl_easy_cleanup(handle);
  curl_global_cleanup();
  return result;
}

}  // namespace

std::int32_t executeWebRequest(std::string& response, RequestParameters& parameters) noexcept {
  try {
    return performTransfer(response, parameters);
  } catch (...) {
    return kException;
  }
}

std::size_t writeResponseData(const char* data, std::size_t size, std::size_t count, void* response) noexcept {
  try {
    static_cast<std::string*>(response)->append(data, size * count);
    return size * count;
  } catch (...) {
    return 0;
  }
}

int continueTransfer(void* /*context*/, curl_off_t /*downloadTotal*/, curl_off_t /*downloaded*/,
                     curl_off_t /*uploadTotal*/, curl_off_t /*uploaded*/) noexcept {
  return 0;
}

}  // namespace reqkit
