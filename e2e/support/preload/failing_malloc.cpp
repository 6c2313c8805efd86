// Preloaded into the tool: lets allocations fail from main's beginning on. See e2e/heavy/faults.py, which runs it. A
// static executable is linked with it instead, and with the linker's option --wrap for what is replaced.
//
// FAIL_FIRST and FAIL_LAST name the allocations that fail, counted from 1. The size of the first that does, a size_t,
// is written to the descriptor FAIL_REPORT.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

// How what is replaced here is called: what replaces it, and the C library's own.
#ifdef WRAPPED
#define REPLACED(name) __wrap_##name
#define OWN(name) __real_##name
#define OWN_MEMALIGN OWN(aligned_alloc)
#else
#define REPLACED(name) name
#define OWN(name) __libc_##name
#define OWN_MEMALIGN OWN(memalign)
#endif

extern "C" {

void* OWN(malloc)(std::size_t size);
void* OWN(calloc)(std::size_t count, std::size_t size);
void* OWN(realloc)(void* memory, std::size_t size);
void* OWN_MEMALIGN(std::size_t alignment, std::size_t size);

}  // extern "C"

namespace {

std::atomic<bool> armed = false;
std::atomic<long> allocations = 0;
long firstFailing = 0;
long lastFailing = 0;
int report = -1;
int (*toolMain)(int, char**, char**) = nullptr;

long numberFrom(const char* variable) {
  const char* const text = std::getenv(variable);
  return text == nullptr ? 0 : std::atol(text);
}

bool mustFail(std::size_t size) {
  if (!armed) return false;
  const long number = ++allocations;
  if (number < firstFailing || number > lastFailing) return false;
  if (number == firstFailing && write(report, &size, sizeof size) != sizeof size) std::abort();
  errno = ENOMEM;
  return true;
}

int armedMain(int argumentCount, char** arguments, char** environment) {
  firstFailing = numberFrom("FAIL_FIRST");
  lastFailing = numberFrom("FAIL_LAST");
  report = static_cast<int>(numberFrom("FAIL_REPORT"));
  armed = true;
  const int status = toolMain(argumentCount, arguments, environment);
  armed = false;
  return status;
}

}  // namespace

extern "C" {

void* REPLACED(malloc)(std::size_t size) { return mustFail(size) ? nullptr : OWN(malloc)(size); }
void* REPLACED(calloc)(std::size_t count, std::size_t size) {
  return mustFail(count * size) ? nullptr : OWN(calloc)(count, size);
}

void* REPLACED(realloc)(void* memory, std::size_t size) {
  return mustFail(size) ? nullptr : OWN(realloc)(memory, size);
}

int REPLACED(posix_memalign)(void** memory, std::size_t alignment, std::size_t size) {
  if (mustFail(size)) return ENOMEM;
  *memory = OWN_MEMALIGN(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

void* REPLACED(aligned_alloc)(std::size_t alignment, std::size_t size) {
  return mustFail(size) ? nullptr : OWN_MEMALIGN(alignment, size);
}

#ifdef WRAPPED
int OWN(main)(int argumentCount, char** arguments, char** environment);

int REPLACED(main)(int argumentCount, char** arguments, char** environment) {
  toolMain = OWN(main);
  return armedMain(argumentCount, arguments, environment);
}
#else
int __libc_start_main(int (*main)(int, char**, char**), int argumentCount, char** arguments, void (*init)(),
                      void (*fini)(), void (*loaderFini)(), void* stackEnd) {
  toolMain = main;
  const auto next = reinterpret_cast<decltype(&__libc_start_main)>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return next(armedMain, argumentCount, arguments, init, fini, loaderFini, stackEnd);
}
#endif

}  // extern "C"
