// Functions of libSystem's where Linux's are different ones: constants, error numbers and opaque objects are macOS's.
// ../symbols.txt lists the bindings. A constant not known here is refused, never handed on.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "load.h"

namespace {

struct Constant {
  int macos;
  int here;
};

// Bits of macOS's become Linux's.
template <std::size_t size>
int translateBits(const char* function, int bits, const std::array<Constant, size>& constants) {
  int translated = 0;
  for (const Constant& constant : constants) {
    if ((bits & constant.macos) == 0) continue;
    translated |= constant.here;
    bits &= ~constant.macos;
  }
  if (bits != 0) refuse("%s gets the unknown bits %#x", function, static_cast<unsigned>(bits));
  return translated;
}

// The errors whose numbers differ; the others up to ERANGE have the same.
constexpr std::array<Constant, 9> kErrors = {{
    {35, EAGAIN},
    {45, EOPNOTSUPP},
    {54, ECONNRESET},
    {62, ELOOP},
    {63, ENAMETOOLONG},
    {69, EDQUOT},
    {70, ESTALE},
    {84, EOVERFLOW},
    {89, ECANCELED},
}};

int translateError(int error) {
  for (const Constant& constant : kErrors) {
    if (constant.here == error) return constant.macos;
  }
  if (error < 1 || error > ERANGE) refuse("the unknown error %d", error);
  return error;
}

constexpr std::uint64_t kUnusedMutex = 0x32AAABA7;
constexpr std::uint64_t kUnusedOnce = 0x30B1BCBA;
constexpr std::uint64_t kUsedOnce = 0x4F4E4345;

// macOS's opaque objects, as static initialisers make them.
struct Mutex {
  std::uint64_t signature;
  std::uint64_t isLocked;
};

struct Once {
  std::uint64_t signature;
};

}  // namespace

extern "C" {

// macOS's errno: takes over what Linux has set since the last call.
int* addressOfError() {
  static int error = 0;
  if (errno != 0) error = translateError(errno);
  errno = 0;
  return &error;
}

int openFile(const char* path, int flags, mode_t mode) {
  constexpr std::array<Constant, 4> kFlags = {{{0x1, O_WRONLY}, {0x2, O_RDWR}, {0x200, O_CREAT}, {0x400, O_TRUNC}}};
  return open(path, translateBits("open", flags, kFlags), mode);
}

int controlFile(int file, int command, long /*argument*/) {
  constexpr int kGetFlags = 1;
  if (command != kGetFlags) refuse("fcntl gets the unknown command %d", command);
  return fcntl(file, F_GETFD);
}

void* mapMemory(void* address, std::size_t size, int protection, int flags, int file, off_t offset) {
  constexpr std::array<Constant, 2> kProtection = {{{0x1, PROT_READ}, {0x2, PROT_WRITE}}};
  constexpr std::array<Constant, 2> kFlags = {{{0x2, MAP_PRIVATE}, {0x1000, MAP_ANONYMOUS}}};
  return mmap(address, size, translateBits("mmap", protection, kProtection), translateBits("mmap", flags, kFlags), file,
              offset);
}

int pollFiles(pollfd* files, unsigned count, int timeOut) {
  constexpr std::array<Constant, 2> kEvents = {{{0x1, POLLIN}, {0x4, POLLOUT}}};  // the same, as are POLLERR and so on
  for (unsigned i = 0; i < count; ++i) translateBits("poll", files[i].events, kEvents);
  return poll(files, count, timeOut);
}

sighandler_t setSignalHandler(int number, sighandler_t handler) {
  if (number != SIGPIPE && number != SIGXFSZ) refuse("signal gets the unknown signal %d", number);
  if (handler != SIG_IGN && handler != SIG_DFL) refuse("signal gets a function");
  return std::signal(number, handler);
}

ssize_t writeFile(int file, const void* bytes, std::size_t size) {
  if (size <= INT_MAX) return write(file, bytes, size);
  errno = EINVAL;
  return -1;
}

// One thread runs the image's code: no other can have locked a mutex or wait for anything.
int lockMutex(Mutex* mutex) {
  if (mutex->signature != kUnusedMutex || mutex->isLocked != 0) refuse("a mutex that can't be locked");
  mutex->isLocked = 1;
  return 0;
}

int unlockMutex(Mutex* mutex) {
  if (mutex->signature != kUnusedMutex || mutex->isLocked != 1) refuse("a mutex that can't be unlocked");
  mutex->isLocked = 0;
  return 0;
}

int callOnce(Once* once, void (*function)()) {
  if (once->signature != kUnusedOnce && once->signature != kUsedOnce) refuse("something that isn't for pthread_once");
  if (once->signature == kUnusedOnce) function();
  once->signature = kUsedOnce;
  return 0;
}

// Succeeds: nobody waits for a condition, and images stay.
int doNothing() { return 0; }

// What is called only where the process is about to abort, or to look for a newer system.
void refuseCall() { refuse("calls a function for which there is nothing here"); }

#if defined(__aarch64__)
int formatFromStack(char* text, std::size_t size, const char* format, void* stack) {
  struct {
    void* stack;
    void* endOfRegisters[2];
    int leftInRegisters[2];
  } const onStack = {stack, {}, {}};  // what a va_list is by Arm's calling convention, with no argument in registers
  va_list arguments;
  static_assert(sizeof arguments == sizeof onStack);
  std::memcpy(&arguments, &onStack, sizeof arguments);
  return std::vsnprintf(text, size, format, arguments);
}
#endif

}  // extern "C"
