#include "app/front_end.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <functional>
#include <new>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "app/usage.h"
#include "testing/bytes.h"
#include "testing/descriptors.h"
#include "testing/failing_allocation.h"
#include "testing/recording_curl.h"

namespace webreq {

namespace {

using namespace std::string_literals;
using test_support::allBytes;
using test_support::allocationCount;
using test_support::allocationFailed;
using test_support::AllocationPlan;
using test_support::Channel;
using test_support::Descriptor;
using test_support::FailingAllocation;
using test_support::fileExists;
using test_support::inQuotes;
using test_support::makeDatagramChannel;
using test_support::makeTemporaryFile;
using test_support::readFile;
using test_support::readFromStart;
using test_support::RecordingCurl;
using test_support::Redirection;
using test_support::TemporaryFolder;
using test_support::writeFile;

using Arguments = std::vector<const char*>;  // behind the program's path
using Lines = std::vector<std::string>;

int call(Arguments arguments) {
  arguments.insert(arguments.begin(), "webreq");
  return runCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

// With standard output redirected.
int callWithOutput(const Descriptor& output, const Arguments& arguments) {
  const Redirection standardOutput(STDOUT_FILENO, output);
  return call(arguments);
}

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
  const Descriptor output = makeTemporaryFile();
  const Descriptor errors = makeTemporaryFile();
  int status = 0;
  {
    const Redirection standardOutput(STDOUT_FILENO, output);
    const Redirection standardError(STDERR_FILENO, errors);
    status = program();
  }
  EXPECT_EQ(readFromStart(errors), "");
  return {status, readFromStart(output)};
}

Outcome run(const Arguments& arguments) {
  return capture([&] { return call(arguments); });
}

Lines usageLines(bool withBanner) {
  Lines lines;
  if (withBanner) lines = {makeBannerLine().data(), "\n"};
  lines.insert(lines.end(), kUsageLines.begin(), kUsageLines.end());
  return lines;
}

std::string join(const Lines& lines) {
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

// The recorded calls that set an option.
std::string callsToSet(const char* option, const RecordingCurl& curl) {
  std::istringstream calls(curl.calls());
  std::string found;
  for (std::string line; std::getline(calls, line);) {
    if (line.find("setopt "s + option + " ") == 0) found += line + "\n";
  }
  return found;
}

TEST(CommandLine, TheArgumentBehindTheFirstMarkerIsTheRequest) {
  const struct {
    const char* rule;
    Arguments arguments;
    const char* url;
  } rows[] = {
      {"a marker and a description", {"-web", "U"}, "U"},
      {"a marker ends with -web", {"--web", "U"}, "U"},
      {"a marker begins with -web", {"-website", "U"}, "U"},
      {"a marker holds -web", {"x-webby", "U"}, "U"},
      {"a marker holds -web behind a part of it", {"--we-web", "U"}, "U"},
      {"arguments before the marker are ignored", {"", "a", "-WEB", "-we", "-web", "U"}, "U"},
      {"arguments behind the description are ignored", {"-web", "U", "a", "b"}, "U"},
      {"a second request is ignored", {"-web", "U1", "-web", "U2"}, "U1"},
      {"a last marker is ignored", {"-web", "U", "-web"}, "U"},
      {"a marker behind the marker is the description", {"-web", "-web", "U"}, "-web"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    const RecordingCurl curl;
    EXPECT_EQ(run(row.arguments), (Outcome{0, "200\n"}));
    EXPECT_EQ(callsToSet("URL", curl), "setopt URL \""s + row.url + "\"\n");
  }
}

TEST(CommandLine, WithoutARequestItPrintsTheUsage) {
  const struct {
    const char* rule;
    Arguments arguments;
    bool withBanner;
  } rows[] = {
      {"no arguments", {}, true},
      {"no marker", {"U", "a=1"}, true},
      {"a marker in capitals is none", {"-WEB", "U"}, true},
      {"a marker without its hyphen is none", {"web", "U"}, true},
      {"a part of a marker is none", {"-we", "U"}, true},
      {"a marker over two arguments is none", {"-w", "eb", "U"}, true},
      {"an empty argument is no marker", {"", "U"}, true},
      {"a marker alone has no request, but no banner either", {"-web"}, false},
      {"a last marker has no request, but no banner either", {"U", "-web"}, false},
      {"a marker and request in one argument", {"-web U"}, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    const RecordingCurl curl;
    EXPECT_EQ(run(row.arguments), (Outcome{-1, join(usageLines(row.withBanner))}));
    EXPECT_EQ(curl.calls(), "");
  }
}

TEST(CommandLine, TheProgramsPathIsNoMarker) {
  const RecordingCurl curl;
  const Arguments withPath = {"x-web", "U"};
  EXPECT_EQ(capture([&] { return runCommandLine(2, withPath.data()); }), (Outcome{-1, join(usageLines(true))}));
  EXPECT_EQ(curl.calls(), "");
}

TEST(CommandLine, EvenTheProgramsPathCanBeMissing) {
  EXPECT_EQ(capture([] { return runCommandLine(0, nullptr); }), (Outcome{-1, join(usageLines(true))}));
}

TEST(Request, WithoutAUrlIsNotMade) {
  for (const char* const description : {"", " \t", " | |x", "|q=1|p|||2000|"}) {
    const RecordingCurl curl;
    EXPECT_EQ(run({"-web", description, "-web", "U"}), (Outcome{0, "-1\n"})) << description;
    EXPECT_EQ(curl.calls(), "") << description;
  }
}

TEST(Request, IsMadeAsDescribed) {
  const RecordingCurl curl;
  EXPECT_EQ(run({"-web", "U|a=1||Accept:\\stext/plain|MyAgent|5000|"}), (Outcome{0, "200\n"}));
  EXPECT_EQ(curl.calls(), R"(global_init ALL
easy_init
setopt URL "U?a=1"
setopt POST 0
setopt CONNECTTIMEOUT 5
setopt TIMEOUT 10
setopt USERAGENT "MyAgent"
setopt WRITEFUNCTION writeResponseData
setopt WRITEDATA other
setopt FOLLOWLOCATION 1
setopt NOPROGRESS 0
setopt XFERINFOFUNCTION continueTransfer
slist_append [] "Accept: text/plain"
setopt HTTPHEADER ["Accept: text/plain"]
setopt SSL_VERIFYPEER 0
setopt SSL_VERIFYHOST 0
perform
progress -> 0
slist_free_all ["Accept: text/plain"]
getinfo RESPONSE_CODE
easy_cleanup
global_cleanup
)");
}

std::string callsFor(const std::string& url, const std::string& header) {
  const RecordingCurl curl;
  const std::string description = url + "|||" + header + "||5000";
  EXPECT_EQ(run({"-web", description.c_str()}), (Outcome{0, "200\n"})) << description;
  return curl.calls();
}

std::string callsExpected(const std::string& url, const std::string& header) {
  return "global_init ALL\neasy_init\nsetopt URL " + inQuotes(url) + R"(
setopt POST 0
setopt CONNECTTIMEOUT 5
setopt TIMEOUT 10
setopt WRITEFUNCTION writeResponseData
setopt WRITEDATA other
setopt FOLLOWLOCATION 1
setopt NOPROGRESS 0
setopt XFERINFOFUNCTION continueTransfer
slist_append [] )" +
         inQuotes(header) + "\nsetopt HTTPHEADER [" + inQuotes(header) + R"(]
setopt SSL_VERIFYPEER 0
setopt SSL_VERIFYHOST 0
perform
progress -> 0
slist_free_all [)" +
         inQuotes(header) + "]\ngetinfo RESPONSE_CODE\neasy_cleanup\nglobal_cleanup\n";
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

// However much the usage text offers POST and a time-out of 20000.
TEST(Request, IsAGetWithATimeOutOf2000Milliseconds) {
  const struct {
    const char* description;
    const char* url;
  } rows[] = {{"U", "U"}, {"U|a=1|p", "U?p"}, {"U|a=1|POST", "U?p"}, {"U|a=1|g", "U?a=1"}};
  for (const auto& row : rows) {
    const RecordingCurl curl;
    SCOPED_TRACE(row.description);
    EXPECT_EQ(run({"-web", row.description}), (Outcome{0, "200\n"}));
    EXPECT_EQ(callsToSet("URL", curl), "setopt URL \""s + row.url + "\"\n");
    EXPECT_EQ(callsToSet("POST", curl), "setopt POST 0\n");
    EXPECT_EQ(callsToSet("CONNECTTIMEOUT", curl), "setopt CONNECTTIMEOUT 2\n");
    EXPECT_EQ(callsToSet("TIMEOUT", curl), "setopt TIMEOUT 4\n");
  }
}

TEST(ResultLine, IsTheResultInDecimal) {
  const struct {
    CURLcode transferResult;
    long status;
    const char* line;
  } rows[] = {
      {CURLE_OK, 200, "200\n"},
      {CURLE_OK, 404, "404\n"},
      {CURLE_OK, 500, "500\n"},
      {CURLE_OK, 0, "0\n"},
      {CURLE_OK, 2147483647, "2147483647\n"},
      {CURLE_OK, -2147483648, "-2147483648\n"},
      {CURLE_COULDNT_RESOLVE_HOST, 200, "6\n"},
      {CURLE_OPERATION_TIMEDOUT, 200, "28\n"},
  };
  for (const auto& row : rows) {
    RecordingCurl curl;
    curl.transferResult = row.transferResult;
    curl.status = row.status;
    EXPECT_EQ(run({"-web", "U"}), (Outcome{0, row.line}));
  }
}

TEST(ResultLine, Is99WithoutAHandle) {
  RecordingCurl curl;
  curl.givesHandle = false;
  EXPECT_EQ(run({"-web", "U"}), (Outcome{0, "99\n"}));
}

TEST(Body, FollowsTheResultLineWithALineFeed) {
  const struct {
    const char* rule;
    std::string body;
    std::string output;
  } rows[] = {
      {"a body gets a line feed", "abc", "200\nabc\n"},
      {"an empty body gets none", "", "200\n"},
      {"a body that ends with a line feed gets another", "abc\n", "200\nabc\n\n"},
      {"a line feed alone is a body", "\n", "200\n\n\n"},
      {"line breaks are not converted", "a\r\nb\nc\r", "200\na\r\nb\nc\r\n"},
      {"NUL bytes are written", "a\0b\0"s, "200\na\0b\0\n"s},
      {"a NUL byte alone is a body", "\0"s, "200\n\0\n"s},
      {"every byte is written", allBytes(), "200\n" + allBytes() + "\n"},
      {"a long body is written", std::string(100000, 'x'), "200\n" + std::string(100000, 'x') + "\n"},
  };
  for (const auto& row : rows) {
    RecordingCurl curl;
    curl.bodyChunks = {row.body};
    EXPECT_EQ(run({"-web", "U"}), (Outcome{0, row.output})) << row.rule;
  }
}

TEST(Body, OfAFailedTransferIsWhatHasArrived) {
  RecordingCurl curl;
  curl.bodyChunks = {"ab", "c"};
  curl.transferResult = CURLE_OPERATION_TIMEDOUT;
  EXPECT_EQ(run({"-web", "U"}), (Outcome{0, "28\nabc\n"}));
}

Outcome runWithOutputFile(const std::string& path) {
  const std::string description = "U||||||" + path;
  return run({"-web", description.c_str()});
}

TEST(OutputFile, HoldsTheBodyAndNothingElse) {
  for (const std::string& body : {""s, "abc"s, "abc\n"s, "a\r\nb\nc\r"s, allBytes(), std::string(100000, 'x')}) {
    const TemporaryFolder folder;
    RecordingCurl curl;
    curl.bodyChunks = {body};
    for (const char* const rule : {"created", "truncated"}) {
      EXPECT_EQ(runWithOutputFile(folder.pathOf("out")), (Outcome{0, "200\n"}));
      EXPECT_EQ(readFile(folder.pathOf("out")), body) << rule;
      writeFile(folder.pathOf("out"), body + "former");
    }
  }
}

TEST(OutputFile, IsTruncatedWithoutAHandle) {
  const TemporaryFolder folder;
  writeFile(folder.pathOf("out"), "former");
  RecordingCurl curl;
  curl.givesHandle = false;
  EXPECT_EQ(runWithOutputFile(folder.pathOf("out")), (Outcome{0, "99\n"}));
  EXPECT_EQ(readFile(folder.pathOf("out")), "");
}

TEST(OutputFile, TakesTheBodyOfAFailedTransfer) {
  const TemporaryFolder folder;
  RecordingCurl curl;
  curl.bodyChunks = {"partial"};
  curl.transferResult = CURLE_OPERATION_TIMEDOUT;
  EXPECT_EQ(runWithOutputFile(folder.pathOf("out")), (Outcome{0, "28\n"}));
  EXPECT_EQ(readFile(folder.pathOf("out")), "partial");
}

TEST(OutputFile, IsLeftAloneWithoutAUrl) {
  const TemporaryFolder folder;
  const RecordingCurl curl;
  writeFile(folder.pathOf("there"), "former");
  for (const char* const name : {"there", "missing"}) {
    const std::string description = "|q=1|p|||2000|" + folder.pathOf(name);
    EXPECT_EQ(run({"-web", description.c_str()}), (Outcome{0, "-1\n"}));
  }
  EXPECT_EQ(readFile(folder.pathOf("there")), "former");
  EXPECT_FALSE(fileExists(folder.pathOf("missing")));
}

TEST(OutputFile, ThatCannotBeOpenedIsSkipped) {
  const TemporaryFolder folder;
  RecordingCurl curl;
  curl.bodyChunks = {"abc"};
  EXPECT_EQ(runWithOutputFile(folder.pathOf("missing/out")), (Outcome{0, "200\n"}));
  EXPECT_FALSE(fileExists(folder.pathOf("missing")));
  EXPECT_EQ(runWithOutputFile(folder.path()), (Outcome{0, "200\n"}));
}

// Opening the file truncates away what has been written to it as standard output, which is the result line.
TEST(OutputFile, IsTouchedAfterTheResultLine) {
  const TemporaryFolder folder;
  const std::string description = "U||||||" + folder.pathOf("out");
  RecordingCurl curl;
  curl.bodyChunks = {"abc"};
  const Descriptor output(open(folder.pathOf("out").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600));
  EXPECT_EQ(callWithOutput(output, {"-web", description.c_str()}), 0);
  EXPECT_EQ(readFile(folder.pathOf("out")), "abc");
}

std::string receive(const Descriptor& descriptor) {
  std::array<char, 65536> message;
  const ssize_t size = recv(descriptor.number(), message.data(), message.size(), 0);
  return {message.data(), static_cast<std::size_t>(size)};
}

// Calls the tool with standard output going to a channel that a second thread reads by messages.
Lines messagesOf(const Arguments& arguments) {
  const Channel channel = makeDatagramChannel();
  Lines messages;
  std::thread reader([&] {
    while (messages.empty() || messages.back() != "end") messages.push_back(receive(channel.readEnd));
  });
  callWithOutput(channel.writeEnd, arguments);
  EXPECT_EQ(send(channel.writeEnd.number(), "end", 3, 0), 3);
  reader.join();
  messages.pop_back();
  return messages;
}

TEST(Output, EachLineIsWrittenAtOnce) {
  RecordingCurl curl;
  EXPECT_EQ(messagesOf({}), usageLines(true));
  EXPECT_EQ(messagesOf({"-web"}), usageLines(false));
  EXPECT_EQ(messagesOf({"-web", "U"}), Lines{"200\n"});
  curl.bodyChunks = {"a\nb"};
  EXPECT_EQ(messagesOf({"-web", "U"}), (Lines{"200\n", "a\nb", "\n"}));
}

TEST(Output, NoLineFeedFollowsABodyThatCannotBeWritten) {
  RecordingCurl curl;
  curl.bodyChunks = {std::string(1U << 22U, 'x')};  // too long for one message
  EXPECT_EQ(messagesOf({"-web", "U"}), Lines{"200\n"});
}

TEST(Output, ThatCannotBeWrittenIsSkipped) {
  const TemporaryFolder folder;
  const Descriptor output(open("/dev/null", O_RDONLY));
  const std::string description = "U||||||" + folder.pathOf("out");
  RecordingCurl curl;
  curl.bodyChunks = {"abc"};
  EXPECT_EQ(callWithOutput(output, {"-web", description.c_str()}), 0);
  EXPECT_EQ(callWithOutput(output, {"-web", "U"}), 0);
  EXPECT_EQ(callWithOutput(output, {}), -1);
  EXPECT_EQ(readFile(folder.pathOf("out")), "abc");
}

Outcome runFailing(const std::string& description, AllocationPlan plan, std::size_t index) {
  const Arguments withPath = {"webreq", "-web", description.c_str()};
  return capture([&] {
    const FailingAllocation failing = plan(index);
    return runCommandLine(static_cast<int>(withPath.size()), withPath.data());
  });
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

// Whether memory ran out once the executor had called libcurl, but before the transfer.
bool failedInSetUp(const RecordingCurl& curl) {
  return !curl.calls().empty() && curl.calls().find("perform") == std::string::npos;
}

TEST(FailingAllocations, InTheExecutorTruncateTheOutputFile) {
  const TemporaryFolder folder;
  const std::string description = "U|||A: " + std::string(100, 'v') + "|||" + folder.pathOf("out");
  int failures = 0;
  for (std::size_t index = 1;; ++index) {
    SCOPED_TRACE("allocation " + std::to_string(index));
    writeFile(folder.pathOf("out"), "former");
    const RecordingCurl curl;
    const Outcome outcome = runFailing(description, FailingAllocation::once, index);
    if (!allocationFailed()) break;
    if (!failedInSetUp(curl)) continue;
    ++failures;
    EXPECT_EQ(outcome, (Outcome{0, "-1\n"}));
    EXPECT_EQ(readFile(folder.pathOf("out")), "");
  }
  EXPECT_GT(failures, 0);
}

TEST(FailingAllocations, LeaveOneResultLine) {
  const TemporaryFolder folder;
  const std::string value(100, 'v');
  const std::string withoutFile = value + "|" + value + "|g|A: " + value + "|" + value + "|1000";
  const std::string withFile = withoutFile + "|" + folder.pathOf("out");
  for (const AllocationPlan plan : {FailingAllocation::once, FailingAllocation::from}) {
    EXPECT_EQ(expectResultLineWhicheverAllocationFails(withoutFile, plan), (Outcome{0, "200\n" + kSmallBody + "\n"}));
    EXPECT_EQ(expectResultLineWhicheverAllocationFails(withFile, plan), (Outcome{0, "200\n"}));
    EXPECT_EQ(readFile(folder.pathOf("out")), kSmallBody);
  }
}

std::size_t allocationsForBody(const Lines& chunks) {
  RecordingCurl curl;
  curl.bodyChunks = chunks;
  runFailing("U", FailingAllocation::once, 0);
  return allocationCount();
}

TEST(Body, GrowsInMemoryThatWasReserved) {
  if (!hasRoomForReservation()) GTEST_SKIP() << "too little memory for a reservation";
  EXPECT_EQ(allocationsForBody(Lines(100, std::string(1000, 'x'))), allocationsForBody({}));
}

TEST(FailingAllocations, LeaveTheUsage) {
  const char* const path = "webreq";
  const Outcome outcome = capture([&] {
    const FailingAllocation failing = FailingAllocation::from(1);
    return runCommandLine(1, &path);
  });
  EXPECT_EQ(outcome, (Outcome{-1, join(usageLines(true))}));
}

}  // namespace

}  // namespace webreq
