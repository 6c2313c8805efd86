#include "app/process_setup.h"

#include <fcntl.h>
#include <unistd.h>

#include <csignal>
#include <initializer_list>

namespace webreq {

namespace {

// Opens /dev/null for reading and writing; where there are no devices, the root folder, to which nothing can be
// written either.
void occupyLowestDescriptor() {
  if (open("/dev/null", O_RDWR) == -1) open("/", O_RDONLY);
}

}  // namespace

void prepareProcess() noexcept {
  // In ascending order, so that the lowest free descriptor is the one that was found closed.
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (fcntl(descriptor, F_GETFD) == -1) occupyLowestDescriptor();
  }
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

}  // namespace webreq
