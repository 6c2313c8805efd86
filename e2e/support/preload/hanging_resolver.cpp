// Preloaded into the tool: a resolver that gives up after four seconds. See e2e/test_timeouts.py, which runs it.
#include <netdb.h>
#include <unistd.h>

extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
  sleep(4);
  return EAI_AGAIN;
}
