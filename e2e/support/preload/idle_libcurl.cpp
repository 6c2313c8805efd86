// Preloaded into the tool by e2e/heavy/cost.py, in libcurl's place: what a run costs is then the tool's own cost. Each
// request is answered with 200; the URL "10 pieces of 4096" gets a body of 10 times 4096 bytes, others none.
#include <curl/curl.h>

#include <array>
#include <cstdarg>
#include <cstdio>

namespace {

std::size_t count = 0;
std::size_t size = 0;
curl_write_callback deliver = nullptr;
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
  if (option == CURLOPT_URL) std::sscanf(va_arg(arguments, const char*), "%zu pieces of %zu", &count, &size);
  if (option == CURLOPT_WRITEFUNCTION) deliver = va_arg(arguments, curl_write_callback);
  if (option == CURLOPT_WRITEDATA) response = va_arg(arguments, void*);
  va_end(arguments);
  return CURLE_OK;
}

CURLcode(curl_easy_perform)(CURL*) {
  static std::array<char, CURL_MAX_WRITE_SIZE> piece;
  for (std::size_t i = 0; i < count; ++i) {
    if (deliver(piece.data(), 1, size, response) != size) return CURLE_WRITE_ERROR;
  }
  return CURLE_OK;
}

CURLcode(curl_easy_getinfo)(CURL*, CURLINFO info, ...) {
  va_list arguments;
  va_start(arguments, info);
  *va_arg(arguments, long*) = 200;
  va_end(arguments);
  return CURLE_OK;
}

}  // extern "C"
