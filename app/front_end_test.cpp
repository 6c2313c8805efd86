#include "app/front_end.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <limits>
#include <new>
#include <string>
#include <vector>

#include "testing/failing_allocation.h"
#include "testing/recording_curl.h"

// The end-to-end tests and the model in fuzz/ say what arguments, fields, body and output file come to.
namespace webreq {

namespace {

using test_support::allocationCount;
using test_support::allocationFailed;
using test_support::AllocationPlan;
using test_support::FailingAllocation;
using test_support::inQuotes;
using test_support::RecordingCurl;

using Chunks = std::vector<std::string>;

// A run's status and standard output. Anything on standard error is a failure.
struct Outcome {
  int status;
  std::string output;
};

bool operator==(const Outcome& left, const Outcome& right) {
  return left.status == right.status && left.output == right.output;
}

std::ostream& operator<<(std::ostream& stream, const Outcome& outcome) {
  return stream << "status " << outcome.status << ", output " << inQuotes(outcome.output);
}

Outcome capture(const std::function<int()>& program) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const int status = program();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  return {status, testing::internal::GetCapturedStdout()};
}

Outcome run(const std::string& description) {
  const char* const arguments[] = {"webreq", "-web", description.c_str()};
  return capture([&] { return runCommandLine(3, arguments); });
}

std::string callsFor(const std::string& url, const std::string& header) {
  const RecordingCurl curl;
  EXPECT_EQ(run(url + "|a=1||" + header + "|MyAgent|5000|"), (Outcome{0, "200\n"})) << url;
  return curl.calls();
}

std::string callsExpected(const std::string& url, const std::string& header) {
  const std::string setUp = R"(
setopt POST 0
setopt CONNECTTIMEOUT 5
setopt TIMEOUT 10
setopt USERAGENT "MyAgent"
setopt WRITEFUNCTION writeResponseData
setopt WRITEDATA other
setopt FOLLOWLOCATION 1
setopt NOPROGRESS 0
setopt XFERINFOFUNCTION continueTransfer
slist_append 0 )";
  const std::string transfer = R"(]
setopt SSL_VERIFYPEER 0
setopt SSL_VERIFYHOST 0
perform
progress -> 0
slist_free_all [)";
  const std::string line = inQuotes(header);
  return "global_init ALL\neasy_init\nsetopt URL " + inQuotes(url + "?a=1") + setUp + line + "\nsetopt HTTPHEADER [" +
         line + transfer + line + "]\ngetinfo RESPONSE_CODE\neasy_cleanup\nglobal_cleanup\n";
}

TEST(Request, IsMadeByTheSameCallsForEveryUrlAndHeaderLine) {
  for (const char* const url :
       {"http://host/", "https://u:p@localhost/", "https://localhost:8443/a?b=c#d", "ftp://u:p@host/a;type=i",
        "ftps://host/", "file:///etc/hosts", "http://[::1]/", "http://127.0.0.1/", "HTTPS://HOST/", "host", "-"}) {
    for (const char* const header :
         {"Authorization: Basic dTpw", "User-Agent: agent", "User-Agent:", "Accept-Encoding: gzip", "Cookie: a=b",
          "Host: host", "Content-Length: 5", "Transfer-Encoding: chunked", "Expect:", "Connection: close"}) {
      EXPECT_EQ(callsFor(url, header), callsExpected(url, header));
    }
  }
}

Outcome runFailing(const std::string& description, AllocationPlan plan, std::size_t index) {
  const char* const arguments[] = {"webreq", "-web", description.c_str()};
  return capture([&] {
    const FailingAllocation failing = plan(index);
    return runCommandLine(3, arguments);
  });
}

// Without the reservation, whose every byte AddressSanitizer would mark.
Outcome runWithoutReservation() { return runFailing("U", FailingAllocation::above, std::size_t{1} << 20U); }

TEST(ResultLine, IsTheStatusInDecimal) {
  RecordingCurl curl;
  for (curl.status = 0; curl.status < 1000; ++curl.status) {
    EXPECT_EQ(runWithoutReservation(), (Outcome{0, std::to_string(curl.status) + "\n"}));
  }
  curl.status = std::numeric_limits<std::int32_t>::max();
  EXPECT_EQ(run("U"), (Outcome{0, "2147483647\n"}));
  curl.status = std::numeric_limits<std::int32_t>::min();
  EXPECT_EQ(run("U"), (Outcome{0, "-2147483648\n"}));
}

// Memory that runs out during the transfer is libcurl's write error, at any other time the result -1.
std::string expectedResultLine(const RecordingCurl& curl) {
  return curl.calls().find("write 100 -> 0") == std::string::npos ? "-1\n" : "23\n";
}

const std::string kSmallBody(100, 'x');

Outcome runWithMemory(const std::string& description) {
  RecordingCurl curl;
  curl.bodyChunks = {kSmallBody};
  return runFailing(description, FailingAllocation::once, 0);
}

// Whether the system has what must be free for a reservation.
bool hasRoomForReservation() {
  constexpr std::size_t kNeeded = std::size_t{3328} << 20U;
  void* const memory = operator new(kNeeded, std::nothrow);
  operator delete(memory, std::nothrow);
  return memory != nullptr;
}

// Returns the outcome with enough memory. That is also the outcome when the reservation for the body fails alone.
Outcome expectResultLineWhicheverAllocationFails(const std::string& description, AllocationPlan plan) {
  Outcome complete = runWithMemory(description);
  int harmless = 0;
  for (std::size_t index = 1;; ++index) {
    SCOPED_TRACE("allocation " + std::to_string(index));
    RecordingCurl curl;
    curl.bodyChunks = {kSmallBody};
    const Outcome outcome = runFailing(description, plan, index);
    if (!allocationFailed()) break;
    if (outcome == complete) {
      ++harmless;
    } else {
      EXPECT_EQ(outcome, (Outcome{0, expectedResultLine(curl)}));
    }
  }
  EXPECT_EQ(harmless, plan == FailingAllocation::once && hasRoomForReservation() ? 1 : 0);
  return complete;
}

struct TemporaryFile {
  ~TemporaryFile() { std::remove(path.c_str()); }
  void write(const char* bytes) const { std::ofstream(path) << bytes; }
  std::string read() const {
    std::string bytes;
    std::getline(std::ifstream(path), bytes, '\0');
    return bytes;
  }

  const std::string path = testing::TempDir() + "webreq-" + std::to_string(getpid());
};

// Whether memory ran out once the executor had called libcurl, but before the transfer.
bool failedInSetUp(const RecordingCurl& curl) {
  return !curl.calls().empty() && curl.calls().find("perform") == std::string::npos;
}

TEST(FailingAllocations, InTheExecutorTruncateTheOutputFile) {
  const TemporaryFile file;
  const std::string description = "U|||A: " + std::string(100, 'v') + "|||" + file.path;
  int failures = 0;
  for (std::size_t index = 1;; ++index) {
    SCOPED_TRACE("allocation " + std::to_string(index));
    file.write("former");
    const RecordingCurl curl;
    const Outcome outcome = runFailing(description, FailingAllocation::once, index);
    if (!allocationFailed()) break;
    if (!failedInSetUp(curl)) continue;
    ++failures;
    EXPECT_EQ(outcome, (Outcome{0, "-1\n"}));
    EXPECT_EQ(file.read(), "");
  }
  EXPECT_GT(failures, 0);
}

TEST(FailingAllocations, LeaveOneResultLine) {
  const TemporaryFile file;
  const std::string value(100, 'v');
  const std::string withoutFile = value + "|" + value + "|g|A: " + value + "|" + value + "|1000";
  const std::string withFile = withoutFile + "|" + file.path;
  for (const AllocationPlan plan : {FailingAllocation::once, FailingAllocation::from}) {
    EXPECT_EQ(expectResultLineWhicheverAllocationFails(withoutFile, plan), (Outcome{0, "200\n" + kSmallBody + "\n"}));
    EXPECT_EQ(expectResultLineWhicheverAllocationFails(withFile, plan), (Outcome{0, "200\n"}));
    EXPECT_EQ(file.read(), kSmallBody);
  }
}

std::size_t allocationsForBody(const Chunks& chunks) {
  RecordingCurl curl;
  curl.bodyChunks = chunks;
  runFailing("U", FailingAllocation::once, 0);
  return allocationCount();
}

TEST(Body, GrowsInMemoryThatWasReserved) {
  if (!hasRoomForReservation()) GTEST_SKIP() << "too little memory for a reservation";
  EXPECT_EQ(allocationsForBody(Chunks(100, std::string(1000, 'x'))), allocationsForBody({}));
}

TEST(FailingAllocations, LeaveTheUsage) {
  const char* const path = "webreq";
  const auto runWithoutArguments = [&] { return runCommandLine(1, &path); };
  const Outcome complete = capture(runWithoutArguments);
  const Outcome outcome = capture([&] {
    const FailingAllocation failing = FailingAllocation::from(1);
    return runWithoutArguments();
  });
  EXPECT_EQ(outcome, complete);
}

}  // namespace

}  // namespace webreq
