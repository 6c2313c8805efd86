// Preloaded into the tool by e2e/heavy/faults.py: allocations fail, from the beginning of main on. A static executable
// is linked with it instead, with the linker's option --wrap for each function replaced.
//
// FAIL_FIRST and FAIL_LAST: the first and the last allocation to fail, counted from 1. FAIL_REPORT: the descriptor that
// gets the size of the first one, a size_t.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

// The names of a replaced function: the replacement's, and that of the C library's own.
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
