// One HTTP or HTTPS request through libcurl's easy interface. Nothing else in the project calls libcurl.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace reqkit {

// What to request, by the one-letter keys that callers of the library write. An absent key means the same as an empty
// value.
//
//   u  URL, handed to libcurl as it is
//   p  parameter string: the query of a GET, the body of a POST; never encoded
//   c  method: a first byte of 'p' is a POST, anything else ('P' too) a GET
//   h  further header lines, separated by carriage returns; "\s" in a line stands for a space
//   a  user agent; none is set when it is empty
//   t  time-out in milliseconds, as text for atoi(); it becomes whole seconds: t / 1000 for connecting, t / 500 for
//      the whole request. 0 leaves libcurl's own time-outs in force. A negative number reaches libcurl as 2^32 plus it,
//      which some versions refuse and others wait for. Text past the range of an int is undefined, as for atoi().
using RequestParameters = std::map<char, std::string>;

// Performs the request that `parameters` describe and replaces `response` with the body of the answer, byte for byte.
// Redirects are followed; neither certificates nor host names are verified.
//
// Returns the status code of the last response (0 for a protocol that has none) when libcurl completed the transfer,
// 4xx and 5xx included; otherwise libcurl's error code (CURLcode), and `response` holds what arrived until then.
// Returns 99, which is an error code of libcurl's too, when libcurl gave no handle, and -1 when memory ran out.
//
// Keys missing from `parameters` are added with empty values; values present are not changed.
//
// Blocks until the transfer ends. Never call it twice at the same time in one process: each call brackets itself
// with curl_global_init() and curl_global_cleanup(), which are not safe beside other uses of libcurl.
std::int32_t executeWebRequest(std::string& response, RequestParameters& parameters) noexcept;

// CURLOPT_WRITEFUNCTION: appends `size` * `count` bytes to the std::string behind `response` and returns their number.
// When memory runs out it takes nothing and returns 0, which ends the transfer with CURLE_WRITE_ERROR: an exception
// must not cross libcurl's frames.
std::size_t writeResponseData(const char* data, std::size_t size, std::size_t count, void* response) noexcept;

// CURLOPT_XFERINFOFUNCTION: returns 0, which lets the transfer go on.
int continueTransfer(void* context, curl_off_t downloadTotal, curl_off_t downloaded, curl_off_t uploadTotal,
                     curl_off_t uploaded) noexcept;

}  // namespace reqkit
