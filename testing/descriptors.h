// Files, pipes and folders for a test to put in the way of the tool's output.
#pragma once

#include <string>

namespace test_support {

// Owns a file descriptor.
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int number() const { return number_; }
  void close();

 private:
  int number_;
};

struct Channel {
  Descriptor readEnd;
  Descriptor writeEnd;
};

Channel makePipe();
Channel makeDatagramChannel();  // what one write() writes, one recv() receives
Descriptor makeTemporaryFile();

// Puts another descriptor in the place of standard output or standard error while it lives.
class Redirection {
 public:
  Redirection(int standard, const Descriptor& replacement);
  ~Redirection();
  Redirection(const Redirection&) = delete;
  Redirection& operator=(const Redirection&) = delete;

 private:
  const int standard_;
  const Descriptor saved_;
};

// An empty folder, removed in the end together with the files in it.
class TemporaryFolder {
 public:
  TemporaryFolder();
  ~TemporaryFolder();
  TemporaryFolder(const TemporaryFolder&) = delete;
  TemporaryFolder& operator=(const TemporaryFolder&) = delete;
  const std::string& path() const { return path_; }
  std::string pathOf(const std::string& file) const { return path_ + "/" + file; }

 private:
  std::string path_;
};

// From where the descriptor stands to the end of the file, or until a pipe's last writer closes it.
std::string readAll(const Descriptor& descriptor);

std::string readFromStart(const Descriptor& file);
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& bytes);
bool fileExists(const std::string& path);

}  // namespace test_support
