// For the static executable: in place of the C library's functions that look names up through plug-ins, which a static
// executable can't load. Nothing calls these: names are c-ares's matter, and ports come as numbers.
#include <netdb.h>

#include <cerrno>

extern "C" {

int getaddrinfo(const char* /*name*/, const char* /*service*/, const addrinfo* /*hints*/, addrinfo** /*addresses*/) {
  return EAI_SERVICE;
}

void freeaddrinfo(addrinfo* /*addresses*/) {}

int getservbyname_r(const char* /*name*/, const char* /*protocol*/, servent* /*entry*/, char* /*buffer*/,
                    size_t /*size*/, servent** result) {
  *result = nullptr;
  return ENOENT;
}

int getservbyport_r(int /*port*/, const char* /*protocol*/, servent* /*entry*/, char* /*buffer*/, size_t /*size*/,
                    servent** result) {
  *result = nullptr;
  return ENOENT;
}

}  // extern "C"
