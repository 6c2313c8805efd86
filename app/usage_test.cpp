#include "app/usage.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "testing/failing_allocation.h"

namespace webreq {

namespace {

using test_support::allocationCount;
using test_support::FailingAllocation;

// The end-to-end tests know which version and date.
TEST(Usage, BannerLineNamesToolAndLibrary) {
  const std::regex form(R"(webreq v\d\.\d\.\d+ \(\d{8}\) / reqkit 4\.1\.6\n)");
  EXPECT_TRUE(std::regex_match(makeBannerLine().data(), form)) << makeBannerLine().data();
}

// Its defaults and its words on CMD differ from what the tool does.
TEST(Usage, TextIsAsItHasAlwaysBeen) {
  std::string text;
  for (const std::string_view line : kUsageLines) text += line;
  EXPECT_EQ(text, R"(
-web URL|PARAM|CMD|HEADER|AGENT|TIMEOUT|OUTFILE 	 executes a web request with the given parameters
	URL is the full server URL to access, prefixed with either "http://" or "https://"
	PARAMS is the param string to be sent to the server in the standard URL encoded form like this "param1=abc&param2=def"
	CMD is to be set to "p" for POST or "g" for GET operation, default is "g"
	HEADER is a list of header fields to set for the request in the format "header1: val1\r\nheader2; val2"
	AGENT is the user agent, default is "Mozilla/5.0"
	TIMEOUT is the timeout in milliseconds, default is 20000
	OUTFILE is the output file for the response, default is empty (meaning output to console)
	Only URL parameter is mandatory, for all others the default values apply
	Returned value is HTTP return code on one line, followed by the complete response (only if OUTFILE is empty)
)");
}

TEST(Usage, EachLineEndsWithItsOnlyLineFeed) {
  for (const std::string_view line : kUsageLines) EXPECT_EQ(line.find('\n'), line.size() - 1) << line;
}

TEST(Usage, BannerLineNeedsNoMemory) {
  BannerLine line;
  {
    const FailingAllocation failing = FailingAllocation::from(1);
    line = makeBannerLine();
  }
  EXPECT_STREQ(line.data(), makeBannerLine().data());
  EXPECT_EQ(allocationCount(), 0U);
}

}  // namespace

}  // namespace webreq
