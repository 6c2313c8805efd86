// Preloaded into the tool: lets allocations fail from main's beginning on. See e2e/faults.py, which runs it.
//
// FAIL_FIRST and FAIL_LAST name the allocations that fail, counted from 1. The size of the first that does, a size_t,
// is written to the descriptor FAIL_REPORT.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdlib>

extern "C" {

// The C library's own names of what is replaced here.
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* memory, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);

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

void* malloc(std::size_t size) { return mustFail(size) ? nullptr : __libc_malloc(size); }
void* calloc(std::size_t count, std::size_t size) {
  return mustFail(count * size) ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, std::size_t size) { return mustFail(size) ? nullptr : __libc_realloc(memory, size); }

int posix_memalign(void** memory, std::size_t alignment, std::size_t size) {
  if (mustFail(size)) return ENOMEM;
  *memory = __libc_memalign(alignment, size);
  return *memory == nullptr ? ENOMEM : 0;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
  return mustFail(size) ? nullptr : __libc_memalign(alignment, size);
}

int __libc_start_main(int (*main)(int, char**, char**), int argumentCount, char** arguments, void (*init)(),
                      void (*fini)(), void (*loaderFini)(), void* stackEnd) {
  toolMain = main;
  const auto next = reinterpret_cast<decltype(&__libc_start_main)>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return next(armedMain, argumentCount, arguments, init, fini, loaderFini, stackEnd);
}

}  // extern "C"
