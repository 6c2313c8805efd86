// In place of AWS-LC's function, to which Libcurl.cmake redirects libcurl's call: AWS-LC's own buffer of 16 KiB stays.
// It is allocated and freed for each read, and a C library's allocator may map and unmap the 64 KiB that libcurl asks
// for every time: 32 MiB over TLS then take longer.
#include <openssl/ssl.h>

int webreq_keep_read_buffer_len(SSL_CTX* context, size_t size) {
  (void)context;
  (void)size;
  return 1;
}
