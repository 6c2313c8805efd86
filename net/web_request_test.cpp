#include "net/web_request.h"

#include <gtest/gtest.h>

#include <limits>
#include <vector>

#include "testing/failing_allocation.h"
#include "testing/recording_curl.h"

namespace reqkit {

namespace {

using namespace std::string_literals;
using test_support::allocationCount;
using test_support::AllocationPlan;
using test_support::FailingAllocation;
using test_support::inQuotes;
using test_support::RecordingCurl;

using Lines = std::vector<std::string>;

constexpr const char* kAllReleased = "handles 0, lists 0, initialisations 0";

constexpr const char* kEndCallsOfAFailure = "slist_free_all []\neasy_cleanup\nglobal_cleanup\n";

// What libcurl is to get of a request.
struct Transfer {
  std::string url = "U";
  bool isPost = false;
  std::string body;
  Lines headers;
  std::string userAgent;
  std::string connectTimeOut = "0";
  std::string timeOut = "0";
};

std::string describe(const Lines& headers) {
  std::string lines;
  for (const std::string& header : headers) lines += (lines.empty() ? "" : ", ") + inQuotes(header);
  return "[" + lines + "]";
}

std::string setopt(const char* option, const std::string& value) { return "setopt "s + option + " " + value + "\n"; }

std::string setUpCalls(const Transfer& transfer) {
  return "global_init ALL\neasy_init\n" + setopt("URL", inQuotes(transfer.url)) +
         setopt("POST", transfer.isPost ? "1" : "0") + setopt("CONNECTTIMEOUT", transfer.connectTimeOut) +
         setopt("TIMEOUT", transfer.timeOut) +
         (transfer.userAgent.empty() ? "" : setopt("USERAGENT", inQuotes(transfer.userAgent))) +
         setopt("WRITEFUNCTION", "writeResponseData") + setopt("WRITEDATA", "response") +
         setopt("FOLLOWLOCATION", "1") + setopt("NOPROGRESS", "0") + setopt("XFERINFOFUNCTION", "continueTransfer") +
         (transfer.isPost ? setopt("POSTFIELDS", inQuotes(transfer.body)) : "");
}

std::string appendCalls(const Lines& headers) {
  std::string calls;
  int length = 0;
  for (const std::string& header : headers) {
    calls += "slist_append " + std::to_string(length++) + " " + inQuotes(header) + "\n";
  }
  return calls;
}

std::string transferCalls(const Transfer& transfer) {
  return setopt("HTTPHEADER", describe(transfer.headers)) + setopt("SSL_VERIFYPEER", "0") +
         setopt("SSL_VERIFYHOST", "0") + (transfer.isPost ? "perform " + inQuotes(transfer.body) : "perform") + "\n";
}

std::string endCalls(const Transfer& transfer) {
  return "progress -> 0\nslist_free_all " + describe(transfer.headers) +
         "\ngetinfo RESPONSE_CODE\neasy_cleanup\nglobal_cleanup\n";
}

std::string callsUpToTransfer(const Transfer& transfer) {
  return setUpCalls(transfer) + appendCalls(transfer.headers) + transferCalls(transfer);
}

std::string completeCalls(const Transfer& transfer) { return callsUpToTransfer(transfer) + endCalls(transfer); }

struct Exchange {
  Exchange() { curl.response = &response; }
  std::int32_t execute() { return executeWebRequest(response, parameters); }

  RecordingCurl curl;
  std::string response = "former";
  RequestParameters parameters = {{'u', "U"}};
};

std::int32_t executeFailing(Exchange& exchange, AllocationPlan plan, std::size_t argument) {
  const FailingAllocation failing = plan(argument);
  return exchange.execute();
}

std::string callsFor(const RequestParameters& parameters) {
  Exchange exchange;
  exchange.parameters = parameters;
  EXPECT_EQ(exchange.execute(), 200);
  EXPECT_EQ(exchange.curl.unreleased(), kAllReleased);
  return exchange.curl.calls();
}

TEST(ExecuteWebRequest, EmptyMapIsAGetOfTheEmptyUrl) {
  Exchange exchange;
  exchange.parameters.clear();
  exchange.curl.transferResult = CURLE_URL_MALFORMAT;
  EXPECT_EQ(exchange.execute(), CURLE_URL_MALFORMAT);
  EXPECT_EQ(exchange.response, "");
  EXPECT_EQ(exchange.parameters, (RequestParameters{{'c', ""}, {'u', ""}, {'h', ""}, {'p', ""}, {'a', ""}, {'t', ""}}));
  Transfer transfer;
  transfer.url = "";
  EXPECT_EQ(exchange.curl.calls(), callsUpToTransfer(transfer) + "progress -> 0\n" + kEndCallsOfAFailure);
  EXPECT_EQ(exchange.curl.unreleased(), kAllReleased);
}

TEST(ExecuteWebRequest, ValuesPresentStayAsTheyAre) {
  Exchange exchange;
  const RequestParameters before = {{'u', "U"},          {'p', " a=1 "}, {'c', "get"},
                                    {'h', " A:\\s1\r "}, {'a', " "},     {'t', " 5s"}};
  for (const char* const method : {"get", "post"}) {
    RequestParameters expected = before;
    expected['c'] = method;
    exchange.parameters = expected;
    exchange.execute();
    EXPECT_EQ(exchange.parameters, expected);
  }
}

TEST(RequestMethod, IsChosenByTheFirstByte) {
  const struct {
    std::string method;
    bool isPost;
  } rows[] = {{"p", true},  {"post", true},  {"pg", true},  {"g", false},  {"", false},
              {"P", false}, {"POST", false}, {" p", false}, {"gp", false}, {"\0p"s, false}};
  for (const auto& row : rows) {
    Transfer expected;
    expected.isPost = row.isPost;
    EXPECT_EQ(callsFor({{'u', "U"}, {'c', row.method}}), completeCalls(expected)) << inQuotes(row.method);
  }
}

TEST(ParameterString, IsTheQueryOfAGet) {
  const struct {
    const char* rule;
    std::string url;
    std::string parameterString;
    std::string requested;
  } rows[] = {
      {"empty leaves the URL alone", "U", "", "U"},
      {"a hyphen leaves the URL alone", "U", "-", "U"},
      {"a hyphen is not trimmed", "U", " -", "U? -"},
      {"a hyphen with more is a query", "U", "-a", "U?-a"},
      {"a URL with a fragment is not looked into", "U#f", "b=2", "U#f?b=2"},
      {"nothing is encoded", "U /\xC3\xA4", "a b&\"\xFF", "U /\xC3\xA4?a b&\"\xFF"},
      {"an empty URL is not treated differently", "", "a=1", "?a=1"},
      {"a query ends at its first NUL byte", "U", "a\0b"s, "U?a"},
      {"a URL ends at its first NUL byte", "U\0V"s, "a=1", "U"},
  };
  for (const auto& row : rows) {
    Transfer expected;
    expected.url = row.requested;
    EXPECT_EQ(callsFor({{'u', row.url}, {'p', row.parameterString}}), completeCalls(expected)) << row.rule;
  }
}

TEST(ParameterString, IsTheBodyOfAPost) {
  const struct {
    const char* rule;
    std::string parameterString;
    std::string body;
  } rows[] = {
      {"empty gives an empty body", "", ""},
      {"a hyphen is a body", "-", "-"},
      {"nothing is encoded or trimmed", " a b&\"\xFF\r\n ", " a b&\"\xFF\r\n "},
      {"a long one is a body", std::string(100000, 'a'), std::string(100000, 'a')},
      {"a body ends at its first NUL byte", "a=1\0b"s, "a=1"},
      {"a leading NUL byte gives an empty body", "\0b"s, ""},
  };
  for (const auto& row : rows) {
    Transfer expected;
    expected.isPost = true;
    expected.body = row.body;
    EXPECT_EQ(callsFor({{'u', "U"}, {'p', row.parameterString}, {'c', "p"}}), completeCalls(expected)) << row.rule;
  }
}

struct TimeOutRow {
  const char* milliseconds;
  const char* connectTimeOut;
  const char* timeOut;
};

void expectTimeOuts(const TimeOutRow& row) {
  Transfer expected;
  expected.connectTimeOut = row.connectTimeOut;
  expected.timeOut = row.timeOut;
  EXPECT_EQ(callsFor({{'u', "U"}, {'t', row.milliseconds}}), completeCalls(expected)) << row.milliseconds;
}

TEST(TimeOuts, AreWholeSecondsOfTheMilliseconds) {
  const TimeOutRow rows[] = {
      {"30000", "30", "60"},
      {"2000", "2", "4"},
      {"1500", "1", "3"},
      {"1000", "1", "2"},
      {"999", "0", "1"},
      {"500", "0", "1"},
      {"499", "0", "0"},
      {"0", "0", "0"},
      {"", "0", "0"},
      {"soon", "0", "0"},
      {"30s", "0", "0"},
      {"30000s", "30", "60"},
      {"1500.9", "1", "3"},
      {"x1500", "0", "0"},
      {"0x7D0", "0", "0"},
      {"02000", "2", "4"},
      {" \t\r\n+1500", "1", "3"},
      {"- 1500", "0", "0"},
      {"2147483647", "2147483", "4294967"},
  };
  for (const TimeOutRow& row : rows) expectTimeOuts(row);
}

TEST(TimeOuts, NegativeOnesAreWidenedWithoutTheirSign) {
  if (sizeof(long) < 8) GTEST_SKIP() << "a long of 32 bits cannot be wider";
  const TimeOutRow rows[] = {
      {"-1000", "4294967295", "4294967294"},
      {" -1000", "4294967295", "4294967294"},
      {"-999", "0", "4294967295"},
      {"-500", "0", "4294967295"},
      {"-499", "0", "0"},
      {"-2147483648", "4292819813", "4290672329"},
  };
  for (const TimeOutRow& row : rows) expectTimeOuts(row);
}

TEST(UserAgent, IsSetUnlessEmpty) {
  for (const std::string userAgent : {"", "agent", " ", "Mozilla/5.0 (X; \xC3\xA4)"}) {
    Transfer expected;
    expected.userAgent = userAgent;
    EXPECT_EQ(callsFor({{'u', "U"}, {'a', userAgent}}), completeCalls(expected)) << userAgent;
  }
}

// Beside those that e2e/test_headers.py has.
TEST(HeaderLines, AreThePiecesWithAColon) {
  const struct {
    const char* rule;
    std::string text;
    Lines lines;
  } rows[] = {
      {"an escaped space at the end stays", "X: 1\\s ", {"X: 1 "}},
      {"an escaped space at the start stays", " \\sX: 1", {" X: 1"}},
      {"of two colons the first one counts", ":value:", {}},
      {"a colon behind an escaped space, a line", "\\s:value", {" :value"}},
      {"a colon behind a line feed, a line", "\n:value", {"\n:value"}},
      {"a colon as the second byte, a line", "A:", {"A:"}},
      {"the same line twice, two lines", "A: 1\rA: 1", {"A: 1", "A: 1"}},
      {"empty", "", {}},
      {"no colon, no line", "none\rA: 1", {"A: 1"}},
      {"a line ends at its first NUL byte", "A: 1\0x\rB: 2"s, {"A: 1", "B: 2"}},
      {"a colon behind a NUL byte counts", "A\0: 1"s, {"A"}},
  };
  for (const auto& row : rows) {
    Transfer expected;
    expected.headers = row.lines;
    EXPECT_EQ(callsFor({{'u', "U"}, {'h', row.text}}), completeCalls(expected)) << row.rule;
  }
}

// The lines so far are lost: they are neither sent nor released. The next line starts a new list.
TEST(HeaderLines, NullFromAppendReplacesTheList) {
  const struct {
    const char* rule;
    std::size_t failingAppend;
    const char* appends;
    Lines sent;
    const char* unreleased;
  } rows[] = {
      {"at the first line",
       1,
       "slist_append 0 \"A: 1\"\nslist_append 0 \"B: 2\"\nslist_append 1 \"C: 3\"\n",
       {"B: 2", "C: 3"},
       kAllReleased},
      {"at a line in the middle",
       2,
       "slist_append 0 \"A: 1\"\nslist_append 1 \"B: 2\"\nslist_append 0 \"C: 3\"\n",
       {"C: 3"},
       "handles 0, lists 1, initialisations 0"},
      {"at the last line",
       3,
       "slist_append 0 \"A: 1\"\nslist_append 1 \"B: 2\"\nslist_append 2 \"C: 3\"\n",
       {},
       "handles 0, lists 1, initialisations 0"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    Exchange exchange;
    exchange.curl.failingAppend = row.failingAppend;
    exchange.parameters['h'] = "A: 1\rB: 2\rC: 3";
    Transfer transfer;
    transfer.headers = row.sent;
    EXPECT_EQ(exchange.execute(), 200);
    EXPECT_EQ(exchange.curl.calls(), setUpCalls({}) + row.appends + transferCalls(transfer) + endCalls(transfer));
    EXPECT_EQ(exchange.curl.unreleased(), row.unreleased);
  }
}

TEST(ExecuteWebRequest, StatusCodeIsNarrowedTo32Bits) {
  Exchange exchange;
  const struct {
    long long status;
    std::int32_t result;
  } rows[] = {
      {4294967296 + 200, 200}, {4294967295, -1}, {2147483648, std::numeric_limits<std::int32_t>::min()}, {-1, -1}};
  for (const auto& row : rows) {
    exchange.curl.status = static_cast<long>(row.status);  // where a long has 32 bits it is narrowed here
    EXPECT_EQ(exchange.execute(), row.result) << row.status;
  }
}

TEST(ExecuteWebRequest, ResultIs0WhenLibcurlGivesNoStatusCode) {
  Exchange exchange;
  exchange.curl.infoResult = CURLE_BAD_FUNCTION_ARGUMENT;
  EXPECT_EQ(exchange.execute(), 0);
}

TEST(ExecuteWebRequest, EveryErrorCodeOfTheTransferIsTheResult) {
  for (int code = CURLE_OK + 1; code < CURL_LAST; ++code) {
    SCOPED_TRACE(code);
    Exchange exchange;
    exchange.curl.bodyChunks = {"partial"};
    exchange.curl.transferResult = static_cast<CURLcode>(code);
    EXPECT_EQ(exchange.execute(), code);
    EXPECT_EQ(exchange.response, "partial");
    EXPECT_EQ(exchange.curl.calls(), callsUpToTransfer({}) + "write 7 -> 7\nprogress -> 0\n" + kEndCallsOfAFailure);
    EXPECT_EQ(exchange.curl.unreleased(), kAllReleased);
  }
}

TEST(ExecuteWebRequest, WithoutAHandleTheResultIs99AndTheTimeOutIsNotLookedUp) {
  Exchange exchange;
  exchange.curl.givesHandle = false;
  EXPECT_EQ(exchange.execute(), 99);
  EXPECT_EQ(exchange.response, "");
  EXPECT_EQ(exchange.parameters, (RequestParameters{{'c', ""}, {'u', "U"}, {'h', ""}, {'p', ""}, {'a', ""}}));
  EXPECT_EQ(exchange.curl.calls(), "global_init ALL\neasy_init\nglobal_cleanup\n");
  EXPECT_EQ(exchange.curl.unreleased(), kAllReleased);
}

TEST(ExecuteWebRequest, AFailingInitialisationIsNotNoticed) {
  Exchange exchange;
  exchange.curl.initialisationResult = CURLE_FAILED_INIT;
  EXPECT_EQ(exchange.execute(), 200);
  EXPECT_EQ(exchange.curl.calls(), completeCalls({}));
}

TEST(ExecuteWebRequest, ARefusedOptionIsNotNoticed) {
  Transfer transfer;
  transfer.isPost = true;
  transfer.userAgent = "agent";
  transfer.headers = {"A: 1"};
  for (const CURLoption option :
       {CURLOPT_URL, CURLOPT_POST, CURLOPT_CONNECTTIMEOUT, CURLOPT_TIMEOUT, CURLOPT_USERAGENT, CURLOPT_WRITEFUNCTION,
        CURLOPT_WRITEDATA, CURLOPT_FOLLOWLOCATION, CURLOPT_NOPROGRESS, CURLOPT_XFERINFOFUNCTION, CURLOPT_POSTFIELDS,
        CURLOPT_HTTPHEADER, CURLOPT_SSL_VERIFYPEER, CURLOPT_SSL_VERIFYHOST}) {
    SCOPED_TRACE(option);
    Exchange exchange;
    exchange.curl.optionResults = {{option, CURLE_OUT_OF_MEMORY}};
    exchange.parameters = {{'u', "U"}, {'c', "p"}, {'a', "agent"}, {'h', "A: 1"}};
    EXPECT_EQ(exchange.execute(), 200);
    EXPECT_EQ(exchange.curl.calls(), completeCalls(transfer));
  }
}

TEST(ExecuteWebRequest, ResponseHoldsEveryByteInOrder) {
  Exchange exchange;
  exchange.curl.bodyChunks = {"a\0b"s, "", "\r\n", std::string(1000000, '\xFF'), "end"};
  EXPECT_EQ(exchange.execute(), 200);
  EXPECT_EQ(exchange.response, "a\0b\r\n"s + std::string(1000000, '\xFF') + "end");
}

TEST(ExecuteWebRequest, KeepsNothingForTheNextRequest) {
  Exchange exchange;
  Transfer post;
  post.isPost = true;
  post.body = "a=1";
  post.headers = {"A: 1"};
  exchange.parameters = {{'u', "U"}, {'c', "p"}, {'p', "a=1"}, {'h', "A: 1"}};
  EXPECT_EQ(exchange.execute(), 200);
  exchange.parameters = {{'u', "U"}};
  EXPECT_EQ(exchange.execute(), 200);
  EXPECT_EQ(exchange.curl.calls(), completeCalls(post) + completeCalls({}));
}

TEST(ExecuteWebRequest, MemoryRunningOutDuringTheTransferIsAWriteError) {
  Exchange exchange;
  exchange.curl.bodyChunks = {"partial", std::string(2000, 'x'), "never"};
  EXPECT_EQ(executeFailing(exchange, FailingAllocation::above, 1000), CURLE_WRITE_ERROR);
  EXPECT_EQ(exchange.response, "partial");
  EXPECT_EQ(exchange.curl.calls(), callsUpToTransfer({}) + "write 7 -> 7\nwrite 2000 -> 0\n" + kEndCallsOfAFailure);
  EXPECT_EQ(exchange.curl.unreleased(), kAllReleased);
}

// Values too long for a string to hold without allocating, and no query.
RequestParameters makeLongParameters(const std::string& method) {
  const std::string value(100, 'v');
  return {{'u', value}, {'p', method == "p" ? value : "-"}, {'c', method},
          {'a', value}, {'h', "A: " + value + "\rB: 2"},    {'t', value}};
}

// The calls that precede each allocation of a request.
std::vector<std::string> callsBeforeAllocations(const RequestParameters& parameters) {
  Exchange exchange;
  exchange.parameters = parameters;
  EXPECT_EQ(executeFailing(exchange, FailingAllocation::once, 0), 200);
  std::vector<std::string> calls;
  for (std::size_t index = 1; index <= allocationCount(); ++index) {
    calls.push_back(exchange.curl.callsBeforeAllocation(index));
  }
  return calls;
}

std::string acquiredBy(const std::string& calls) {
  const auto count = [&](const char* name) { return calls.find(name) == std::string::npos ? "0" : "1"; };
  return "handles "s + count("easy_init") + ", lists " + count("slist_append") + ", initialisations " +
         count("global_init");
}

void expectEndWithoutAFurtherCall(const RequestParameters& parameters, AllocationPlan plan) {
  std::size_t index = 0;
  for (const std::string& calls : callsBeforeAllocations(parameters)) {
    SCOPED_TRACE("allocation " + std::to_string(++index));
    Exchange exchange;
    exchange.parameters = parameters;
    EXPECT_EQ(executeFailing(exchange, plan, index), -1);
    EXPECT_EQ(exchange.curl.calls(), calls);
    EXPECT_EQ(exchange.curl.unreleased(), acquiredBy(calls));
    EXPECT_EQ(exchange.response, calls.empty() ? "former" : "");
    EXPECT_EQ(exchange.parameters, parameters);
  }
  EXPECT_GT(index, 0U);
}

// Handle, header list and initialisation stay behind: no release call is made.
TEST(ExecuteWebRequest, AFailingAllocationEndsItWithoutAFurtherCall) {
  for (const char* const method : {"g", "p"}) {
    SCOPED_TRACE(method);
    expectEndWithoutAFurtherCall(makeLongParameters(method), FailingAllocation::once);
    expectEndWithoutAFurtherCall(makeLongParameters(method), FailingAllocation::from);
  }
}

TEST(ExecuteWebRequest, ResponseIsEmptiedBeforeTheQueryIsAppended) {
  Exchange exchange;
  exchange.parameters = {{'u', std::string(900, 'u')}, {'p', std::string(900, 'p')}};
  EXPECT_EQ(executeFailing(exchange, FailingAllocation::above, 1000), -1);
  EXPECT_EQ(exchange.response, "");
  EXPECT_EQ(exchange.curl.calls(), "");
}

std::string keysOf(const RequestParameters& parameters) {
  std::string keys;
  for (const auto& entry : parameters) keys += entry.first;
  return keys;
}

TEST(ExecuteWebRequest, MissingKeysAreAddedInTheOrderOfTheirUse) {
  const struct {
    std::size_t failingAllocation;
    const char* keys;  // in the map's order, which is not the one of their use
    const char* response;
  } rows[] = {{1, "", "former"},    {2, "c", "former"},    {3, "cu", "former"},
              {4, "chu", "former"}, {5, "chpu", "former"}, {6, "achpu", ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.failingAllocation);
    Exchange exchange;
    exchange.parameters.clear();
    EXPECT_EQ(executeFailing(exchange, FailingAllocation::once, row.failingAllocation), -1);
    EXPECT_EQ(keysOf(exchange.parameters), row.keys);
    EXPECT_EQ(exchange.response, row.response);
  }
}

TEST(ExecuteWebRequest, TimeOutIsLookedUpBehindTheMethodOption) {
  Exchange exchange;
  exchange.parameters = {{'c', ""}, {'u', "U"}, {'h', ""}, {'p', ""}, {'a', ""}};
  EXPECT_EQ(executeFailing(exchange, FailingAllocation::once, 1), -1);
  EXPECT_EQ(exchange.curl.calls(), "global_init ALL\neasy_init\nsetopt URL \"U\"\nsetopt POST 0\n");
}

TEST(WriteResponseData, AppendsSizeTimesCountBytes) {
  const struct {
    const char* rule;
    std::size_t size;
    std::size_t count;
    std::string appended;
  } rows[] = {
      {"one byte each", 1, 6, "ab\0def"s}, {"more bytes each", 2, 3, "ab\0def"s},
      {"one element", 6, 1, "ab\0def"s},   {"not all there is", 1, 3, "ab\0"s},
      {"no elements", 1, 0, ""},           {"empty elements", 0, 6, ""},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.rule);
    std::string response = "former\0"s;
    EXPECT_EQ(writeResponseData("ab\0def", row.size, row.count, &response), row.size * row.count);
    EXPECT_EQ(response, "former\0"s + row.appended);
  }
}

TEST(WriteResponseData, TakesNothingWhenMemoryRunsOut) {
  const std::string data(2000, 'x');
  std::string response = "former";
  std::size_t taken = 0;
  {
    const FailingAllocation failing = FailingAllocation::above(1000);
    taken = writeResponseData(data.data(), 1, data.size(), &response);
  }
  EXPECT_EQ(taken, 0U);
  EXPECT_EQ(response, "former");
}

TEST(ContinueTransfer, ReturnsZeroWhateverHasBeenTransferred) {
  const curl_off_t amounts[] = {-1, 0, 1, std::numeric_limits<curl_off_t>::max()};
  for (const curl_off_t downloadTotal : amounts) {
    for (const curl_off_t downloaded : amounts) {
      for (const curl_off_t uploadTotal : amounts) {
        for (const curl_off_t uploaded : amounts) {
          EXPECT_EQ(continueTransfer(nullptr, downloadTotal, downloaded, uploadTotal, uploaded), 0);
        }
      }
    }
  }
}

}  // namespace

}  // namespace reqkit
