// Preloaded into the tool: a resolver that gives up after two seconds. See e2e/test_timeouts.py, which runs it.
#include <netdb.h>
#include <unistd.h>

extern "C" int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
  sleep(2);
  return EAI_AGAIN;
}
