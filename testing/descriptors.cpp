#include "testing/descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace test_support {

void Descriptor::close() {
  if (number_ != -1) ::close(number_);
  number_ = -1;
}

Channel makePipe() {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(pipe(ends.data()), 0);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Channel makeDatagramChannel() {
  std::array<int, 2> ends = {-1, -1};
  EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends.data()), 0);
  const int space = 1 << 16;  // for all that a test sends, where a full buffer doesn't make the sender wait
  EXPECT_EQ(setsockopt(ends[0], SOL_SOCKET, SO_RCVBUF, &space, sizeof space), 0);
  return {Descriptor(ends[0]), Descriptor(ends[1])};
}

Descriptor makeTemporaryFile() {
  std::string path = testing::TempDir() + "webreq-XXXXXX";
  const int number = mkstemp(path.data());
  EXPECT_NE(number, -1);
  unlink(path.c_str());
  return Descriptor(number);
}

Redirection::Redirection(int standard, const Descriptor& replacement) : standard_(standard), saved_(dup(standard)) {
  std::fflush(nullptr);  // what the test has printed goes where it belongs
  EXPECT_NE(dup2(replacement.number(), standard_), -1);
}

Redirection::~Redirection() { dup2(saved_.number(), standard_); }

TemporaryFolder::TemporaryFolder() : path_(testing::TempDir() + "webreq-XXXXXX") {
  EXPECT_NE(mkdtemp(path_.data()), nullptr);
}

TemporaryFolder::~TemporaryFolder() {
  DIR* const folder = opendir(path_.c_str());
  if (folder == nullptr) return;
  while (const dirent* const entry = readdir(folder)) unlink(pathOf(entry->d_name).c_str());
  closedir(folder);
  rmdir(path_.c_str());
}

std::string readAll(const Descriptor& descriptor) {
  std::string bytes;
  std::array<char, 65536> buffer;
  for (;;) {
    const ssize_t count = read(descriptor.number(), buffer.data(), buffer.size());
    if (count <= 0) return bytes;
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

std::string readFromStart(const Descriptor& file) {
  lseek(file.number(), 0, SEEK_SET);
  return readAll(file);
}

std::string readFile(const std::string& path) {
  const Descriptor file(open(path.c_str(), O_RDONLY));
  EXPECT_NE(file.number(), -1) << path;
  return readAll(file);
}

void writeFile(const std::string& path, const std::string& bytes) {
  std::ofstream file(path, std::ios::binary);
  file << bytes;
  EXPECT_TRUE(file.flush()) << path;
}

bool fileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

}  // namespace test_support
