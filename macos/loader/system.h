// macOS's functions on Linux, where they aren't the same ones: constants, errno and calling convention are translated.
// A constant that isn't known here is refused, never handed on.
#pragma once

#include <poll.h>
#include <sys/types.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>

namespace macho {

// errno as macOS numbers it.
extern int systemError;

// macOS's number of an error of Linux's.
int translateError(int error);

// Calls a function of Linux's and sets systemError if that sets errno, which stays as it was.
template <auto function, class... Arguments>
auto call(Arguments... arguments) {
  const int before = errno;
  errno = 0;
  const auto result = function(arguments...);
  if (errno != 0) systemError = translateError(errno);  // NOLINT(clang-analyzer-unix.Errno): 0 after a success
  errno = before;
  return result;
}

int* addressOfError();

void* mapMemory(void* address, std::size_t size, int protection, int flags, int file, off_t offset);
int pollFiles(pollfd* files, unsigned count, int timeOut);
sighandler_t setSignalHandler(int number, sighandler_t handler);
ssize_t writeFile(int file, const void* bytes, std::size_t size);

// What macOS has in its opaque objects, as far as they can be made without a call.
struct Mutex {
  std::uint64_t signature;
  std::uint64_t isLocked;
};

struct Once {
  std::uint64_t signature;
};

int lockMutex(Mutex* mutex);
int unlockMutex(Mutex* mutex);
int callOnce(Once* once, void (*function)());
int createKey(std::uint64_t* key, void (*destroy)(void*));
void* getSpecific(std::uint64_t key);
int setSpecific(std::uint64_t key, const void* value);
int broadcast(void* condition);
unsigned numberOfThread(std::uint64_t thread);

}  // namespace macho

// Reached through calls.S on arm64.
extern "C" {

int openFile(const char* path, int flags, mode_t mode);
int controlFile(int file, int command, long argument);
int formatFromStack(char* text, std::size_t size, const char* format, void* stack);

}  // extern "C"
