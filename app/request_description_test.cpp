#include "app/request_description.h"

#include <gtest/gtest.h>

namespace webreq {

namespace {

using namespace std::string_literals;
using reqkit::RequestParameters;

const RequestParameters kUrlOnly = {{'u', "U"}, {'t', "2000"}, {'c', "g"}};

// What a description yields that gives further parameters than the URL U.
RequestParameters withUrl(RequestParameters parameters) {
  parameters.insert(kUrlOnly.begin(), kUrlOnly.end());
  return parameters;
}

TEST(ParseRequestDescription, MakesParametersOfTheFields) {
  const struct {
    const char* rule;
    std::string text;
    RequestParameters parameters;
  } rows[] = {
      {"a URL alone gets the default time-out and method", "U", kUrlOnly},
      {"all seven fields",
       "U|a=1|g|A: 1|agent|5000|out",
       {{'u', "U"}, {'p', "a=1"}, {'c', "g"}, {'h', "A: 1"}, {'a', "agent"}, {'t', "5000"}}},
      {"empty fields set nothing", "U||||||", kUrlOnly},
      {"blank fields set nothing", "U| |\t| \t |  |\t\t| ", kUrlOnly},
      {"fields are trimmed of spaces and tabs",
       " U\t|  a=1 | g |\tA: 1\t| agent | 5000 ",
       {{'u', "U"}, {'p', "a=1"}, {'c', "g"}, {'h', "A: 1"}, {'a', "agent"}, {'t', "5000"}}},
      {"blanks inside a field stay", "U|a = 1", withUrl({{'p', "a = 1"}})},
      {"line breaks at the ends of a field stay", "U|\r\na=1\r\n", withUrl({{'p', "\r\na=1\r\n"}})},
      {"a marker can be the URL", "-web", {{'u', "-web"}, {'t', "2000"}, {'c', "g"}}},
      {"a CMD of post overwrites PARAM", "U|a=1|post", withUrl({{'p', "p"}})},
      {"a CMD of POST sets the parameter string without PARAM", "U||POST", withUrl({{'p', "p"}})},
      {"of CMD only the first byte counts: p", "U|a=1|p", withUrl({{'p', "p"}})},
      {"of CMD only the first byte counts: P", "U|a=1|P", withUrl({{'p', "p"}})},
      {"of CMD only the first byte counts: put", "U|a=1|put", withUrl({{'p', "p"}})},
      {"of CMD only the first byte counts: Patch", "U|a=1|Patch", withUrl({{'p', "p"}})},
      {"of CMD only the first byte counts: blanks before p", "U|a=1| \tp", withUrl({{'p', "p"}})},
      {"a CMD of get changes nothing", "U|a=1|get", withUrl({{'p', "a=1"}})},
      {"a CMD of Get changes nothing", "U|a=1|Get", withUrl({{'p', "a=1"}})},
      {"a CMD of G changes nothing", "U|a=1|G", withUrl({{'p', "a=1"}})},
      {"an unknown CMD changes nothing", "U|a=1|x", withUrl({{'p', "a=1"}})},
      {"a CMD with a p further on changes nothing", "U|a=1|up", withUrl({{'p', "a=1"}})},
      {"an empty CMD changes nothing", "U|a=1|", withUrl({{'p', "a=1"}})},
      {"a PARAM of - is passed on", "U|-", withUrl({{'p', "-"}})},
      {"HEADER is passed on as it is", "U|||A:\\s1\r\nB: 2\rno colon", withUrl({{'h', "A:\\s1\r\nB: 2\rno colon"}})},
      {"AGENT is passed on as it is", "U||||Mozilla/5.0 (X)", withUrl({{'a', "Mozilla/5.0 (X)"}})},
      {"TIMEOUT is trimmed", "U||||| 5000 ", {{'u', "U"}, {'t', "5000"}, {'c', "g"}}},
      {"TIMEOUT is not checked", "U|||||30s soon", {{'u', "U"}, {'t', "30s soon"}, {'c', "g"}}},
      {"a TIMEOUT of 0 is not the default", "U|||||0", {{'u', "U"}, {'t', "0"}, {'c', "g"}}},
      {"fields behind OUTFILE are ignored", "U|||||||extra|more", kUrlOnly},
      {"more fields than bars are appended", "U" + std::string(40, '|') + "extra", kUrlOnly},
      {"there is no quoting", "U|\"a|g\"", withUrl({{'p', "\"a"}})},
      {"a NUL byte is ordinary", "U\0V|a\0b"s, {{'u', "U\0V"s}, {'p', "a\0b"s}, {'t', "2000"}, {'c', "g"}}},
  };
  for (const auto& row : rows) EXPECT_EQ(parseRequestDescription(row.text).parameters, row.parameters) << row.rule;
}

TEST(ParseRequestDescription, GivesTheOutputFile) {
  const struct {
    const char* rule;
    const char* text;
    const char* outputFile;
  } rows[] = {
      {"the seventh field", "U||||||out", "out"},
      {"missing", "U", ""},
      {"empty", "U||||||", ""},
      {"blank", "U|||||| \t ", ""},
      {"trimmed", "U||||||\tmy out ", "my out"},
      {"nothing of the fields behind it", "U||||||out|extra|more", "out"},
      {"not the eighth field", "U|||||||extra|more", ""},
  };
  for (const auto& row : rows) EXPECT_EQ(parseRequestDescription(row.text).outputFile, row.outputFile) << row.rule;
}

TEST(ParseRequestDescription, GivesNothingWithoutAUrl) {
  for (const char* const text : {"", " \t", "|", " | |x", "|q=1|p|||2000|out.txt", "\t|a=1|g|A: 1|agent|5000|out"}) {
    const RequestDescription description = parseRequestDescription(text);
    EXPECT_EQ(description.parameters, RequestParameters{}) << text;
    EXPECT_EQ(description.outputFile, "") << text;
  }
}

}  // namespace

}  // namespace webreq
