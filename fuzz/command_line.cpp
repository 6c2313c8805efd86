// Fuzzes a whole run of the tool over the recording libcurl. The linker puts the functions below in the place of
// open(), write() and close(), so that no file is touched and writes end early as the input wants it, and in the place
// of malloc() and free(), so that the reservation for the body takes microseconds: AddressSanitizer would mark each of
// its bytes twice.
//
// Input: a byte that says how much each write takes, then the arguments, a NUL byte behind each, then the body.
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "app/front_end.h"
#include "testing/recording_curl.h"

namespace {

constexpr int kOutputFile = 1'000'000;
constexpr std::size_t kReservation = std::size_t{1} << 30U;  // bytes; what is larger than this is taken for one

struct World {
  std::string standardOutput;
  std::string file;
  std::string path;
  int filesOpen = 0;
  int filesOpened = 0;
  std::size_t writeSize = 1;
  unsigned int writes = 0;
};

World world;
bool running = false;
void* reservation = nullptr;
std::size_t reservationSize = 0;

void require(bool holds) {
  if (!holds) std::abort();
}

}  // namespace

extern "C" {

ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
int __real_close(int descriptor);
int __real_open(const char* path, int flags, ...);
void* __real_malloc(std::size_t size);
void __real_free(void* memory);

int __wrap_open(const char* path, int flags, int mode) {
  if (!running) return __real_open(path, flags, mode);
  world.path = path;
  world.file.clear();
  ++world.filesOpen;
  ++world.filesOpened;
  return kOutputFile;
}

ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  if (!running) return __real_write(descriptor, bytes, size);
  require(descriptor == STDOUT_FILENO || (descriptor == kOutputFile && world.filesOpen == 1));
  if (++world.writes % 3 == 0) {
    errno = EINTR;
    return -1;
  }
  const std::size_t taken = std::min(size, world.writeSize);
  (descriptor == kOutputFile ? world.file : world.standardOutput).append(static_cast<const char*>(bytes), taken);
  return static_cast<ssize_t>(taken);
}

int __wrap_close(int descriptor) {
  if (!running) return __real_close(descriptor);
  require(descriptor == kOutputFile);
  --world.filesOpen;
  return 0;
}

void* __wrap_malloc(std::size_t size) {
  if (!running || size < kReservation) return __real_malloc(size);
  require(reservation == nullptr);
  reservationSize = size;
  reservation = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  require(reservation != MAP_FAILED);
  return reservation;
}

void __wrap_free(void* memory) {
  if (memory == nullptr || memory != reservation) return __real_free(memory);
  munmap(reservation, reservationSize);
  reservation = nullptr;
}

}  // extern "C"

namespace {

struct Case {
  std::vector<std::string> arguments;
  std::string body;
};

Case readCase(const std::string& input) {
  Case result;
  std::size_t start = 0;
  for (std::size_t end = input.find('\0'); end != std::string::npos; end = input.find('\0', start)) {
    result.arguments.push_back(input.substr(start, end - start));
    start = end + 1;
  }
  result.body = input.substr(start);
  return result;
}

// The index of the description, or 0 where there is none.
std::size_t findDescription(const std::vector<std::string>& arguments) {
  for (std::size_t i = 1; i + 1 < arguments.size(); ++i) {
    if (arguments[i].find("-web") != std::string::npos) return i + 1;
  }
  return 0;
}

std::string fieldOf(const std::string& description, int index) {
  std::size_t start = 0;
  for (; index > 0; --index) {
    const std::size_t bar = description.find('|', start);
    if (bar == std::string::npos) return "";
    start = bar + 1;
  }
  const std::string field = description.substr(start, description.find('|', start) - start);
  const std::size_t first = field.find_first_not_of(" \t");
  return first == std::string::npos ? "" : field.substr(first, field.find_last_not_of(" \t") - first + 1);
}

int run(const std::vector<std::string>& arguments) {
  std::vector<const char*> pointers;
  pointers.reserve(arguments.size());
  for (const std::string& argument : arguments) pointers.push_back(argument.c_str());
  running = true;
  const int status = webreq::runCommandLine(static_cast<int>(pointers.size()), pointers.data());
  running = false;
  return status;
}

// The calls without their values, which the unit tests pin, and without those of which there may be any number.
std::string outlineOf(const std::string& calls) {
  std::istringstream lines(calls);
  std::string outline;
  for (std::string line; std::getline(lines, line);) {
    const std::size_t values = line.find(' ', line.rfind("setopt ", 0) == 0 ? 7 : 0);
    const std::string name = line.substr(0, values);
    if (name != "slist_append" && name != "write") outline += name + "\n";
  }
  return outline;
}

void checkCalls(const std::string& calls, const std::string& description) {
  if (fieldOf(description, 0).empty()) return require(calls.empty());
  const bool hasUserAgent = !fieldOf(description, 4).empty();
  require(outlineOf(calls) ==
          std::string("global_init\neasy_init\nsetopt URL\nsetopt POST\nsetopt CONNECTTIMEOUT\nsetopt TIMEOUT\n") +
              (hasUserAgent ? "setopt USERAGENT\n" : "") +
              "setopt WRITEFUNCTION\nsetopt WRITEDATA\nsetopt FOLLOWLOCATION\nsetopt NOPROGRESS\n"
              "setopt XFERINFOFUNCTION\nsetopt HTTPHEADER\nsetopt SSL_VERIFYPEER\nsetopt SSL_VERIFYHOST\nperform\n"
              "progress\nslist_free_all\ngetinfo\neasy_cleanup\nglobal_cleanup\n");
}

void checkRequest(const Case& input, const std::string& description) {
  const bool hasUrl = !fieldOf(description, 0).empty();
  const std::string path = hasUrl ? fieldOf(description, 6) : "";
  const std::string resultLine = hasUrl ? "200\n" : "-1\n";
  if (path.empty()) {
    const bool hasBody = hasUrl && !input.body.empty();
    require(world.standardOutput == resultLine + (hasBody ? input.body + "\n" : ""));
    require(world.filesOpened == 0);
  } else {
    require(world.standardOutput == resultLine);
    require(world.filesOpened == 1 && world.path == path && world.file == input.body);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const Case input = readCase({reinterpret_cast<const char*>(data) + 1, size - 1});
  world = World();
  world.writeSize = std::size_t{data[0]} + 1;
  test_support::RecordingCurl curl;
  const std::size_t half = input.body.size() / 2;
  curl.bodyChunks = {input.body.substr(0, half), input.body.substr(half)};
  const int status = run(input.arguments);
  const std::size_t description = findDescription(input.arguments);
  require(status == (description == 0 ? -1 : 0) && world.filesOpen == 0);
  require(curl.unreleased() == "handles 0, lists 0, initialisations 0");
  if (description == 0) {
    require(curl.calls().empty());
    require(world.standardOutput.find("\n-web URL|PARAM|CMD|") != std::string::npos);
  } else {
    checkRequest(input, input.arguments[description]);
    checkCalls(curl.calls(), input.arguments[description]);
  }
  return 0;
}
