#include "app/output.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>

namespace webreq {

namespace {

// Waits as long as a blocking descriptor would.
void awaitWritable(int descriptor) {
  pollfd entry = {descriptor, POLLOUT, 0};
  poll(&entry, 1, -1);
}

// Returns false when the rest can't be written.
bool writeAll(int descriptor, std::string_view bytes) {
  constexpr std::size_t kLargestWrite = std::size_t{1} << 30U;  // macOS refuses more than INT_MAX bytes
  while (!bytes.empty()) {
    const ssize_t written = write(descriptor, bytes.data(), std::min(bytes.size(), kLargestWrite));
    if (written > 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (written < 0 && errno == EAGAIN) {
      awaitWritable(descriptor);
    } else if (written == 0 || errno != EINTR) {
      return false;
    }
  }
  return true;
}

int openOutputFile(const std::string& path) {
  int descriptor = -1;
  do {
    descriptor = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0666);
  } while (descriptor == -1 && errno == EINTR);
  return descriptor;
}

}  // namespace

bool writeToStandardOutput(std::string_view bytes) noexcept { return writeAll(STDOUT_FILENO, bytes); }

void writeOutputFile(const std::string& path, std::string_view bytes) noexcept {
  const int descriptor = openOutputFile(path);
  if (descriptor == -1) return;
  writeAll(descriptor, bytes);
  close(descriptor);
}

}  // namespace webreq
