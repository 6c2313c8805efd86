#include "testing/recording_curl.h"

#include <cstdarg>
#include <cstdlib>
#include <deque>
#include <limits>

#include "net/web_request.h"
#include "testing/failing_allocation.h"

namespace test_support {

namespace {

using Function = void (*)();

struct Call {
  std::string line;
  std::size_t allocationsBefore;
};

struct List {
  curl_slist* last;
  std::size_t length;
};

struct Recording {
  std::vector<Call> calls;
  int initialisations = 0;
  int handles = 0;
  std::deque<std::string> headerLines;  // of released lists, too
  std::deque<curl_slist> nodes;
  std::map<const curl_slist*, List> lists;  // those alive, by their first nodes
  std::size_t appends = 0;
  std::map<CURLoption, long> numbers;  // options set
  std::map<CURLoption, void*> objects;
  std::map<CURLoption, Function> functions;
};

Recording recording;
const RecordingCurl* answers = nullptr;
char theHandle = 0;

const std::map<CURLoption, const char*> kOptionNames = {
    {CURLOPT_URL, "URL"},
    {CURLOPT_POST, "POST"},
    {CURLOPT_CONNECTTIMEOUT, "CONNECTTIMEOUT"},
    {CURLOPT_TIMEOUT, "TIMEOUT"},
    {CURLOPT_USERAGENT, "USERAGENT"},
    {CURLOPT_WRITEFUNCTION, "WRITEFUNCTION"},
    {CURLOPT_WRITEDATA, "WRITEDATA"},
    {CURLOPT_FOLLOWLOCATION, "FOLLOWLOCATION"},
    {CURLOPT_NOPROGRESS, "NOPROGRESS"},
    {CURLOPT_XFERINFOFUNCTION, "XFERINFOFUNCTION"},
    {CURLOPT_POSTFIELDS, "POSTFIELDS"},
    {CURLOPT_HTTPHEADER, "HTTPHEADER"},
    {CURLOPT_SSL_VERIFYPEER, "SSL_VERIFYPEER"},
    {CURLOPT_SSL_VERIFYHOST, "SSL_VERIFYHOST"},
};

template <typename Value>
Value valueOf(const std::map<CURLoption, Value>& values, CURLoption option, Value otherwise) {
  const auto found = values.find(option);
  return found == values.end() ? otherwise : found->second;
}

std::string nameOf(CURLoption option) {
  const char* const name = valueOf<const char*>(kOptionNames, option, nullptr);
  return name == nullptr ? std::to_string(option) : name;
}

std::string nameOf(Function function) {
  if (function == reinterpret_cast<Function>(reqkit::writeResponseData)) return "writeResponseData";
  if (function == reinterpret_cast<Function>(reqkit::continueTransfer)) return "continueTransfer";
  return "other";
}

std::string describe(const curl_slist* list) {
  if (list == nullptr) return "[]";
  if (recording.lists.count(list) == 0) return "(no such list)";
  std::string lines;
  for (; list != nullptr; list = list->next) lines += (lines.empty() ? "" : ", ") + inQuotes(list->data);
  return "[" + lines + "]";
}

std::string describe(CURLoption option, const void* value) {
  if (option == CURLOPT_HTTPHEADER) return describe(static_cast<const curl_slist*>(value));
  if (option == CURLOPT_WRITEDATA) return value == answers->response ? "response" : "other";
  return value == nullptr ? "null" : inQuotes(static_cast<const char*>(value));
}

void record(const std::string& call) {
  if (answers == nullptr) std::abort();
  recording.calls.push_back({call + "\n", allocationCount()});
}

void record(const CURL* handle, const std::string& call) {
  record(handle == &theHandle && recording.handles > 0 ? call : call + " (no such handle)");
}

template <typename Value>
CURLcode setOption(const CURL* handle, CURLoption option, Value value, const std::string& description,
                   std::map<CURLoption, Value>& values) {
  record(handle, "setopt " + nameOf(option) + " " + description);
  values[option] = value;
  return valueOf(answers->optionResults, option, CURLE_OK);
}

CURLcode setOption(const CURL* handle, CURLoption option, va_list& arguments) {
  if (option < CURLOPTTYPE_OBJECTPOINT) {
    const long value = va_arg(arguments, long);
    return setOption(handle, option, value, std::to_string(value), recording.numbers);
  }
  if (option < CURLOPTTYPE_FUNCTIONPOINT) {
    void* const value = va_arg(arguments, void*);
    return setOption(handle, option, value, describe(option, value), recording.objects);
  }
  const Function value = va_arg(arguments, Function);
  return setOption(handle, option, value, nameOf(value), recording.functions);
}

void recordPerform(const CURL* handle) {
  const UncountedAllocations uncounted;
  void* const body = valueOf<void*>(recording.objects, CURLOPT_POSTFIELDS, nullptr);
  record(handle, body == nullptr ? "perform" : "perform " + describe(CURLOPT_POSTFIELDS, body));
}

bool deliver(const std::string& chunk) {
  const auto function = valueOf<Function>(recording.functions, CURLOPT_WRITEFUNCTION, nullptr);
  void* const data = valueOf<void*>(recording.objects, CURLOPT_WRITEDATA, nullptr);
  if (function == nullptr || data == nullptr) return true;
  const auto write = reinterpret_cast<decltype(&reqkit::writeResponseData)>(function);
  const std::size_t taken = write(chunk.data(), 1, chunk.size(), data);
  const UncountedAllocations uncounted;
  RecordingCurl::note("write " + std::to_string(chunk.size()) + " -> " + std::to_string(taken), false);
  return taken == chunk.size();
}

bool reportProgress() {
  const auto function = valueOf<Function>(recording.functions, CURLOPT_XFERINFOFUNCTION, nullptr);
  if (function == nullptr || valueOf(recording.numbers, CURLOPT_NOPROGRESS, 1L) == 1) return true;
  const int result = reinterpret_cast<decltype(&reqkit::continueTransfer)>(function)(nullptr, 4, 3, 2, 1);
  const UncountedAllocations uncounted;
  record("progress -> " + std::to_string(result));
  return result == 0;
}

std::string lengthOf(const curl_slist* list) {
  if (list == nullptr) return "0";
  const auto found = recording.lists.find(list);
  return found == recording.lists.end() ? "(no such list)" : std::to_string(found->second.length);
}

curl_slist* addLine(curl_slist* list, const char* line) {
  curl_slist* const node = &recording.nodes.emplace_back();
  node->data = recording.headerLines.emplace_back(line).data();
  if (list == nullptr) {
    recording.lists[node] = {node, 1};
    return node;
  }
  const auto found = recording.lists.find(list);
  if (found == recording.lists.end()) return list;
  found->second.last->next = node;
  found->second = {node, found->second.length + 1};
  return list;
}

}  // namespace

std::string inQuotes(std::string_view bytes) {
  constexpr std::string_view kDigits = "0123456789ABCDEF";
  std::string text = "\"";
  for (const char byte : bytes) {
    const auto value = static_cast<unsigned char>(byte);
    const bool isPrinted = ' ' <= byte && byte <= '~';
    if (byte == '"' || byte == '\\') text += '\\';
    if (!isPrinted) text.append({'\\', 'x', kDigits[value / 16], kDigits[value % 16]});
    if (isPrinted) text += byte;
  }
  return text + "\"";
}

RecordingCurl::RecordingCurl() {
  recording = {};
  answers = this;
}

RecordingCurl::~RecordingCurl() { answers = nullptr; }

void RecordingCurl::note(const std::string& call, bool again) {
  if (again || recording.calls.empty() || recording.calls.back().line != call + "\n") record(call);
}

std::string RecordingCurl::calls() const { return callsBeforeAllocation(std::numeric_limits<std::size_t>::max()); }

std::string RecordingCurl::callsBeforeAllocation(std::size_t index) const {
  std::string lines;
  for (const Call& call : recording.calls) {
    if (call.allocationsBefore < index) lines += call.line;
  }
  return lines;
}

std::string RecordingCurl::unreleased() const {
  return "handles " + std::to_string(recording.handles) + ", lists " + std::to_string(recording.lists.size()) +
         ", initialisations " + std::to_string(recording.initialisations);
}

// clang warns of variable arguments behind an enumeration, as libcurl has them.
#pragma GCC diagnostic ignored "-Wvarargs"

extern "C" {  // names in parentheses, since <curl/curl.h> also has some of them as macros

CURLcode(curl_global_init)(long flags) {
  const UncountedAllocations uncounted;
  record("global_init " + (flags == CURL_GLOBAL_ALL ? "ALL" : std::to_string(flags)));
  ++recording.initialisations;
  return answers->initialisationResult;
}

void(curl_global_cleanup)() {
  const UncountedAllocations uncounted;
  record("global_cleanup");
  --recording.initialisations;
}

CURL*(curl_easy_init)() {
  const UncountedAllocations uncounted;
  record("easy_init");
  if (!answers->givesHandle) return nullptr;
  ++recording.handles;
  recording.numbers.clear();
  recording.objects.clear();
  recording.functions.clear();
  return &theHandle;
}

CURLcode(curl_easy_setopt)(CURL* handle, CURLoption option, ...) {
  const UncountedAllocations uncounted;
  va_list arguments;
  va_start(arguments, option);
  const CURLcode result = setOption(handle, option, arguments);
  va_end(arguments);
  return result;
}

CURLcode(curl_easy_perform)(CURL* handle) {
  recordPerform(handle);
  for (const std::string& chunk : answers->bodyChunks) {
    if (!deliver(chunk)) return CURLE_WRITE_ERROR;
  }
  return reportProgress() ? answers->transferResult : CURLE_ABORTED_BY_CALLBACK;
}

CURLcode(curl_easy_getinfo)(CURL* handle, CURLINFO info, ...) {
  const UncountedAllocations uncounted;
  record(handle, "getinfo " + (info == CURLINFO_RESPONSE_CODE ? "RESPONSE_CODE" : std::to_string(info)));
  va_list arguments;
  va_start(arguments, info);
  if (answers->infoResult == CURLE_OK) *va_arg(arguments, long*) = answers->status;
  va_end(arguments);
  return answers->infoResult;
}

void(curl_easy_cleanup)(CURL* handle) {
  const UncountedAllocations uncounted;
  record(handle, "easy_cleanup");
  --recording.handles;
}

curl_slist*(curl_slist_append)(curl_slist* list, const char* line) {
  const UncountedAllocations uncounted;
  record("slist_append " + lengthOf(list) + " " + inQuotes(line));
  return ++recording.appends == answers->failingAppend ? nullptr : addLine(list, line);
}

void(curl_slist_free_all)(curl_slist* list) {
  const UncountedAllocations uncounted;
  record("slist_free_all " + describe(list));
  recording.lists.erase(list);
}

}  // extern "C"

}  // namespace test_support
