// Preloaded into the tool in libcurl's place: every request is answered with 200 and a body in two pieces, but a URL
// that begins with "refused" with a failure. The system is asked for nothing. What is left are the tool's own calls.
// See e2e/test_footprint.py, which runs it.
#include <curl/curl.h>

#include <cstdarg>
#include <cstring>

namespace {

const char* url = nullptr;
curl_write_callback deliver = nullptr;
curl_xferinfo_callback tellProgress = nullptr;
void* response = nullptr;

}  // namespace

#pragma GCC diagnostic ignored "-Wvarargs"  // clang's, of arguments behind an enumeration

extern "C" {  // names in parentheses, since <curl/curl.h> also has some of them as macros

CURLcode(curl_global_init)(long) { return CURLE_OK; }
void(curl_global_cleanup)() {}
CURL*(curl_easy_init)() { return &response; }
void(curl_easy_cleanup)(CURL*) {}
curl_slist*(curl_slist_append)(curl_slist*, const char*) { return nullptr; }
void(curl_slist_free_all)(curl_slist*) {}

CURLcode(curl_easy_setopt)(CURL*, CURLoption option, ...) {
  va_list arguments;
  va_start(arguments, option);
  if (option == CURLOPT_URL) url = va_arg(arguments, const char*);
  if (option == CURLOPT_XFERINFOFUNCTION) tellProgress = va_arg(arguments, curl_xferinfo_callback);
  if (option == CURLOPT_WRITEFUNCTION) deliver = va_arg(arguments, curl_write_callback);
  if (option == CURLOPT_WRITEDATA) response = va_arg(arguments, void*);
  va_end(arguments);
  return CURLE_OK;
}

CURLcode(curl_easy_perform)(CURL*) {
  char body[] = "body";
  if (tellProgress(nullptr, 4, 0, 0, 0) != 0) return CURLE_ABORTED_BY_CALLBACK;
  if (std::strncmp(url, "refused", 7) == 0) return CURLE_COULDNT_CONNECT;
  const bool isTaken = deliver(body, 1, 2, response) == 2 && deliver(body + 2, 1, 2, response) == 2;
  return isTaken ? CURLE_OK : CURLE_WRITE_ERROR;
}

CURLcode(curl_easy_getinfo)(CURL*, CURLINFO info, ...) {
  va_list arguments;
  va_start(arguments, info);
  *va_arg(arguments, long*) = 200;
  va_end(arguments);
  return CURLE_OK;
}

}  // extern "C"
