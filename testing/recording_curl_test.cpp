#include "testing/recording_curl.h"

#include <gtest/gtest.h>

namespace test_support {

namespace {

TEST(RecordingCurl, TellsWhatIsDoneToAHandleThatIsNotAlive) {
  const RecordingCurl curl;
  CURL* const handle = curl_easy_init();
  curl_easy_cleanup(handle);
  curl_easy_setopt(handle, CURLOPT_POST, 0L);
  curl_easy_perform(nullptr);
  curl_easy_cleanup(handle);
  EXPECT_EQ(curl.calls(), R"(easy_init
easy_cleanup
setopt POST 0 (no such handle)
perform (no such handle)
easy_cleanup (no such handle)
)");
  EXPECT_EQ(curl.unreleased(), "handles -1, lists 0, initialisations 0");
}

TEST(RecordingCurl, TellsWhatIsDoneToAListThatIsNotAlive) {
  const RecordingCurl curl;
  CURL* const handle = curl_easy_init();
  curl_slist* const list = curl_slist_append(nullptr, "A: 1");
  curl_slist_free_all(list);
  curl_easy_setopt(handle, CURLOPT_HTTPHEADER, list);
  curl_slist_free_all(list);
  EXPECT_EQ(curl.calls(), R"(easy_init
slist_append [] "A: 1"
slist_free_all ["A: 1"]
setopt HTTPHEADER (no such list)
slist_free_all (no such list)
)");
  EXPECT_EQ(curl.unreleased(), "handles 1, lists 0, initialisations 0");
}

}  // namespace

}  // namespace test_support
