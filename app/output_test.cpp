#include "app/output.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>
#include <thread>

#include "testing/bytes.h"
#include "testing/descriptors.h"
#include "testing/failing_allocation.h"
#include "testing/interruptions.h"

namespace webreq {

namespace {

using namespace std::string_literals;
using test_support::allBytes;
using test_support::allocationCount;
using test_support::Channel;
using test_support::Descriptor;
using test_support::FailingAllocation;
using test_support::fileExists;
using test_support::Interruptions;
using test_support::makePipe;
using test_support::makeTemporaryFile;
using test_support::readFile;
using test_support::readFromStart;
using test_support::Redirection;
using test_support::TemporaryFolder;
using test_support::writeFile;

// A megabyte without repetitions, so that no part of it can take another's place.
std::string makeLongText() {
  std::string text;
  for (int number = 0; text.size() < 1U << 20U; ++number) text += std::to_string(number) + ",";
  return text;
}

// Bytes that something might convert, end at or leave out.
const struct {
  const char* rule;
  std::string bytes;
} kRows[] = {
    {"nothing", ""},
    {"no line feed is added", "abc"},
    {"line breaks are not converted", "a\r\nb\nc\r"},
    {"NUL bytes are written", "a\0b\0"s},
    {"every byte is written", allBytes()},
    {"a long text is written", makeLongText()},
};

// With standard output redirected.
bool writeTo(const Descriptor& output, std::string_view bytes) {
  const Redirection standardOutput(STDOUT_FILENO, output);
  return writeToStandardOutput(bytes);
}

TEST(WriteToStandardOutput, WritesExactlyTheBytes) {
  for (const auto& row : kRows) {
    const Descriptor output = makeTemporaryFile();
    EXPECT_TRUE(writeTo(output, row.bytes)) << row.rule;
    EXPECT_TRUE(readFromStart(output) == row.bytes) << row.rule;
  }
}

// While it lives, writing to a pipe without a reader is no signal, as in the tool.
class IgnoredBrokenPipe {
 public:
  ~IgnoredBrokenPipe() { std::signal(SIGPIPE, formerHandler_); }

 private:
  void (*formerHandler_)(int) = std::signal(SIGPIPE, SIG_IGN);
};

TEST(WriteToStandardOutput, ReportsWhatCannotBeWritten) {
  const IgnoredBrokenPipe ignored;
  EXPECT_FALSE(writeTo(Descriptor(open("/dev/null", O_RDONLY)), "abc"));
  Channel withoutReader = makePipe();
  withoutReader.readEnd.close();
  EXPECT_FALSE(writeTo(withoutReader.writeEnd, "abc"));
}

// Reads part by part. Before each one the writer is interrupted while it waits, more than once, so that it has written
// nothing since the last time.
std::string readSlowly(const Descriptor& descriptor, const Interruptions& interruptions) {
  std::string bytes;
  std::array<char, 65536> buffer;
  for (;;) {
    interruptions.await(3);
    const ssize_t count = read(descriptor.number(), buffer.data(), buffer.size());
    if (count <= 0) return bytes;
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
}

// Returns how many bytes it took.
std::size_t fillUp(const Descriptor& pipeEnd) {
  EXPECT_EQ(fcntl(pipeEnd.number(), F_SETFL, O_NONBLOCK), 0);
  std::size_t size = 0;
  while (write(pipeEnd.number(), "", 1) == 1) ++size;
  return size;
}

// What arrives through a pipe that is full to begin with.
std::string sendThroughFullPipe(const std::string& text, int flags) {
  const Interruptions interruptions;
  Channel pipe = makePipe();
  const std::size_t filled = fillUp(pipe.writeEnd);
  EXPECT_EQ(fcntl(pipe.writeEnd.number(), F_SETFL, flags), 0);
  std::string received;
  std::thread reader = interruptions.startThread([&] { received = readSlowly(pipe.readEnd, interruptions); });
  EXPECT_TRUE(writeTo(pipe.writeEnd, text));
  pipe.writeEnd.close();
  reader.join();
  return received.substr(filled);
}

void expectWhole(int flags) {
  const std::string received = sendThroughFullPipe(makeLongText(), flags);
  EXPECT_TRUE(received == makeLongText()) << received.size() << " bytes";
}

TEST(WriteToStandardOutput, GetsAllThroughInterruptions) { expectWhole(0); }

TEST(WriteToStandardOutput, GetsAllThroughANonBlockingPipe) { expectWhole(O_NONBLOCK); }

TEST(WriteToStandardOutput, EndsWhenTheReaderOfANonBlockingPipeLeaves) {
  const IgnoredBrokenPipe ignored;
  Channel pipe = makePipe();
  EXPECT_EQ(fcntl(pipe.writeEnd.number(), F_SETFL, O_NONBLOCK), 0);
  std::string start(4, '\0');
  std::thread reader([&] {
    EXPECT_EQ(read(pipe.readEnd.number(), start.data(), start.size()), 4);
    pipe.readEnd.close();
  });
  EXPECT_FALSE(writeTo(pipe.writeEnd, makeLongText()));
  reader.join();
  EXPECT_EQ(start, makeLongText().substr(0, 4));
}

TEST(WriteOutputFile, MakesTheFileHoldExactlyTheBytes) {
  for (const char* const former : {"", "a file"}) {
    for (const auto& row : kRows) {
      const TemporaryFolder folder;
      writeFile(folder.pathOf("out"), former);
      writeOutputFile(folder.pathOf("out"), row.bytes);
      EXPECT_TRUE(readFile(folder.pathOf("out")) == row.bytes) << row.rule << " over " << former;
    }
  }
}

TEST(WriteOutputFile, CreatesTheFileEvenForNothing) {
  const TemporaryFolder folder;
  writeOutputFile(folder.pathOf("out"), "");
  EXPECT_EQ(readFile(folder.pathOf("out")), "");
}

mode_t modeOf(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return status.st_mode & 07777U;
}

TEST(WriteOutputFile, CreatesTheFileReadableAndWritableLessTheMask) {
  for (const mode_t mask : {000U, 027U}) {
    const TemporaryFolder folder;
    const mode_t formerMask = umask(mask);
    writeOutputFile(folder.pathOf("out"), "abc");
    umask(formerMask);
    EXPECT_EQ(modeOf(folder.pathOf("out")), 0666U & ~mask);
  }
}

TEST(WriteOutputFile, TruncatesTheFileThatIsThereAndPutsNoOtherInItsPlace) {
  const TemporaryFolder folder;
  writeFile(folder.pathOf("out"), "former");
  EXPECT_EQ(link(folder.pathOf("out").c_str(), folder.pathOf("other name").c_str()), 0);
  EXPECT_EQ(chmod(folder.pathOf("out").c_str(), 0640), 0);
  writeOutputFile(folder.pathOf("out"), "abc");
  EXPECT_EQ(readFile(folder.pathOf("other name")), "abc");
  EXPECT_EQ(modeOf(folder.pathOf("out")), 0640U);
}

TEST(WriteOutputFile, TakesARelativePathFromTheWorkingFolder) {
  const TemporaryFolder folder;
  const Descriptor formerFolder(open(".", O_RDONLY));
  EXPECT_EQ(chdir(folder.path().c_str()), 0);
  writeOutputFile("out", "abc");
  EXPECT_EQ(fchdir(formerFolder.number()), 0);
  EXPECT_EQ(readFile(folder.pathOf("out")), "abc");
}

TEST(WriteOutputFile, SkipsAFileThatCannotBeOpened) {
  const TemporaryFolder folder;
  writeOutputFile(folder.pathOf("missing/out"), "abc");
  EXPECT_FALSE(fileExists(folder.pathOf("missing")));
  writeOutputFile(folder.path(), "abc");
}

// While it lives, files can't grow above that size, and trying to is no signal.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) : formerHandler_(std::signal(SIGXFSZ, SIG_IGN)) {
    getrlimit(RLIMIT_FSIZE, &former_);
    const rlimit limit = {size, former_.rlim_max};
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &former_);
    std::signal(SIGXFSZ, formerHandler_);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;

 private:
  rlimit former_ = {};
  void (*formerHandler_)(int);
};

TEST(WriteOutputFile, LeavesAFileThatCannotBeWrittenAsItIs) {
  const TemporaryFolder folder;
  {
    const FileSizeLimit limit(100);
    writeOutputFile(folder.pathOf("out"), std::string(1000, 'x'));
  }
  EXPECT_EQ(readFile(folder.pathOf("out")), std::string(100, 'x'));
}

TEST(WriteOutputFile, ClosesTheFile) {
  const TemporaryFolder folder;
  const int lowestFree = Descriptor(dup(STDOUT_FILENO)).number();
  writeOutputFile(folder.pathOf("out"), "abc");
  EXPECT_EQ(Descriptor(dup(STDOUT_FILENO)).number(), lowestFree);
}

TEST(WriteOutputFile, OpensTheFileThroughInterruptions) {
  const TemporaryFolder folder;
  const std::string pipe = folder.pathOf("out");
  EXPECT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  std::string received;
  const Interruptions interruptions;
  std::thread reader = interruptions.startThread([&] {
    interruptions.await(20);  // opening waits for a reader
    received = readFile(pipe);
  });
  writeOutputFile(pipe, "abc");
  reader.join();
  EXPECT_EQ(received, "abc");
}

TEST(Output, NeedsNoMemory) {
  const TemporaryFolder folder;
  const std::string path = folder.pathOf("out");
  const Descriptor output = makeTemporaryFile();
  {
    const FailingAllocation failing = FailingAllocation::from(1);
    writeTo(output, "abc");
    writeOutputFile(path, "abc");
  }
  EXPECT_EQ(allocationCount(), 0U);
  EXPECT_EQ(readFile(path), "abc");
}

}  // namespace

}  // namespace webreq
