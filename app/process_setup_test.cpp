#undef _FORTIFY_SOURCE  // which would have <fcntl.h> define open()

#include "app/process_setup.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <map>
#include <string_view>
#include <tuple>

#include "testing/descriptors.h"

namespace {

bool hasDevNull = true;

}  // namespace

// Takes the place of the C library's in this program.
extern "C" int open(const char* path, int flags, ...) {
  if (!hasDevNull && path == std::string_view("/dev/null")) {
    errno = ENOENT;
    return -1;
  }
  va_list arguments;
  va_start(arguments, flags);
  const unsigned int mode = (flags & O_CREAT) == 0 ? 0 : va_arg(arguments, unsigned int);
  va_end(arguments);
  return openat(AT_FDCWD, path, flags, mode);
}

// What clang makes of open() where the C library's headers check it.
extern "C" int __open_2(const char* path, int flags) { return open(path, flags); }

namespace webreq {

namespace {

using test_support::Descriptor;
using test_support::makeTemporaryFile;

// Device, file, and how it is accessed.
using OpenFile = std::tuple<dev_t, ino_t, int>;

OpenFile openFileOf(int descriptor) {
  struct stat status = {};
  EXPECT_TRUE(descriptor >= 0 && fstat(descriptor, &status) == 0) << descriptor;
  return {status.st_dev, status.st_ino, fcntl(descriptor, F_GETFL) & O_ACCMODE};
}

std::map<int, OpenFile> openFiles() {
  std::map<int, OpenFile> files;
  for (int descriptor = 0; descriptor < 100; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) != -1) files[descriptor] = openFileOf(descriptor);
  }
  return files;
}

// Ends the process, with status 0 if `file` is open afterwards on those standard descriptors that were closed, and
// everything else is as it was. `closed` has a bit for each of them.
[[noreturn]] void prepareWithClosed(unsigned int closed, const OpenFile& file) {
  const Descriptor open = makeTemporaryFile();
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(open.number(), descriptor);
  std::map<int, OpenFile> expected = openFiles();
  for (const int descriptor : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if ((closed >> static_cast<unsigned int>(descriptor) & 1U) == 0) continue;
    close(descriptor);
    expected[descriptor] = file;
  }
  prepareProcess();
  _exit(openFiles() == expected ? 0 : 1);
}

TEST(PrepareProcessDeathTest, OpensDevNullOnClosedDescriptorsAndNothingElse) {
  const OpenFile devNull = openFileOf(Descriptor(open("/dev/null", O_RDWR)).number());
  for (unsigned int closed = 0; closed < 8; ++closed) {
    EXPECT_EXIT(prepareWithClosed(closed, devNull), testing::ExitedWithCode(0), "") << closed;
  }
}

TEST(PrepareProcessDeathTest, OpensTheRootFolderWhereThereIsNoDevNull) {
  const OpenFile rootFolder = openFileOf(Descriptor(open("/", O_RDONLY)).number());
  hasDevNull = false;
  for (unsigned int closed = 0; closed < 8; ++closed) {
    EXPECT_EXIT(prepareWithClosed(closed, rootFolder), testing::ExitedWithCode(0), "") << closed;
  }
  hasDevNull = true;
}

TEST(PrepareProcessDeathTest, HasTheSignalsOfFailedWritesIgnored) {
  const auto raiseBoth = [] {
    std::signal(SIGPIPE, SIG_DFL);
    std::signal(SIGXFSZ, SIG_DFL);
    prepareProcess();
    _exit(std::raise(SIGPIPE) == 0 && std::raise(SIGXFSZ) == 0 ? 0 : 1);
  };
  EXPECT_EXIT(raiseBoth(), testing::ExitedWithCode(0), "");
}

}  // namespace

}  // namespace webreq
