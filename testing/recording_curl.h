// A libcurl that transfers nothing: it records the calls made to it, and answers as a test tells it to. Its functions
// take the place of the real ones in every program it is linked into.
#pragma once

#include <curl/curl.h>

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace test_support {

// The bytes between double quotes, as they stand in a recorded call; those that don't print as \xNN.
std::string inQuotes(std::string_view bytes);

// Each one starts a new recording. The answers are to be set before the calls. One at a time.
struct RecordingCurl {
  RecordingCurl();
  ~RecordingCurl();
  RecordingCurl(const RecordingCurl&) = delete;
  RecordingCurl& operator=(const RecordingCurl&) = delete;

  CURLcode initialisationResult = CURLE_OK;
  bool givesHandle = true;
  std::map<CURLoption, CURLcode> optionResults;  // the options come into force all the same
  std::size_t failingAppend = 0;                 // which curl_slist_append gives null; the first is 1
  std::vector<std::string> bodyChunks;           // what arrives, if WRITEFUNCTION and WRITEDATA are set
  CURLcode transferResult = CURLE_OK;            // unless a callback ends the transfer
  CURLcode infoResult = CURLE_OK;                // the status is given with CURLE_OK only
  long status = 200;
  const void* response = nullptr;  // where WRITEDATA is this, "response" is recorded, otherwise "other"

  // One line a call, such as
  //   setopt POST 1
  //   setopt HTTPHEADER ["A: 1", "B: 2"]
  //   slist_append 1 "B: 2"            the list's length so far, and the new line
  //   perform "a=1"                    the body as it is by then
  //   write 3 -> 3                     bytes handed to WRITEFUNCTION, and its result; once where that is repeated
  //   progress -> 0                    XFERINFOFUNCTION's result
  // A handle or list that isn't alive is recorded as "(no such handle)", "(no such list)".
  std::string calls() const;

  // Records a call to something else, in its place among these; with `again` false, a repeated call is recorded once.
  static void note(const std::string& call, bool again = true);

  // The calls made before the index-th allocation that FailingAllocation counted; the first is 1.
  std::string callsBeforeAllocation(std::size_t index) const;

  // "handles 0, lists 0, initialisations 0" when nothing is.
  std::string unreleased() const;
};

}  // namespace test_support
