// Fuzzes a whole run of the tool, from main on, and compares it with a model: every call to libcurl and to the system,
// with its values and in its place, both outputs, the exit status; the process is afterwards as it was. libcurl is the
// recording one; the linker puts the functions below in the place of the C library's, so that no file is touched.
//
// Input: eight bytes for what the tool meets (see readCase()), the arguments, a NUL byte behind each, then the body.
// The byte kThousandCopies stands for as many further copies of what precedes it in its field.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

#include "testing/recording_curl.h"

int toolMain(int argumentCount, char** arguments);  // the tool's main, renamed for this program

namespace {

using test_support::inQuotes;
using test_support::RecordingCurl;

using Strings = std::vector<std::string>;
using Handler = void (*)(int);

constexpr int kOutputFile = 1'000'000;  // its descriptor
constexpr std::size_t kHeaderSize = 8;
constexpr std::uint8_t kThousandCopies = 1;

struct Case {
  std::size_t writeSize = 1;  // what a write takes at most
  bool closed[3] = {};        // the standard descriptors
  bool hasDevNull = true;
  bool opensOutputFile = true;  // at the first try
  bool hasHandle = true;
  std::size_t pieceSize = 1;  // what libcurl delivers of the body at once
  CURLcode outcome = CURLE_OK;
  long status = 200;
  int error = 0;  // errno of an open, of one write, of all polls and closes; 0: that write returns 0, those succeed
  std::size_t bytesBeforeFailure = std::numeric_limits<std::size_t>::max();  // behind them one write fails
  Strings arguments;
  std::string body;
};

Case world;
unsigned int writes = 0;
std::string standardOutput;
std::string file;
bool isRunning = false;

int failureUnless(bool succeeds) {
  errno = world.error;
  return succeeds ? 0 : -1;
}

}  // namespace

extern "C" {

ssize_t __real_write(int descriptor, const void* bytes, std::size_t size);
int __real_close(int descriptor);
int __real_open(const char* path, int flags, ...);
int __real_fcntl(int descriptor, int command, ...);
int __real_poll(pollfd* entries, nfds_t count, int milliseconds);
Handler __real_signal(int signal, Handler handler);
void* __real_mmap(void* address, std::size_t size, int protection, int flags, int file, off_t offset);

int __wrap_open(const char* path, int flags, int mode) {
  if (!isRunning) return __real_open(path, flags, mode);
  const bool isOutput = (flags & O_CREAT) != 0;
  RecordingCurl::note("open " + inQuotes(path) + " " + std::to_string(flags) +
                      (isOutput ? " " + std::to_string(mode) : ""));
  const bool opens = isOutput ? world.opensOutputFile : world.hasDevNull || path == std::string("/");
  if (isOutput) world.opensOutputFile = true;
  return failureUnless(opens) == 0 ? kOutputFile : -1;
}

// Every third one fails, as if a signal had come or a pipe were full.
ssize_t __wrap_write(int descriptor, const void* bytes, std::size_t size) {
  if (!isRunning) return __real_write(descriptor, bytes, size);
  RecordingCurl::note("write " + std::to_string(descriptor), false);
  if (++writes % 3 == 0) {
    errno = writes % 2 == 0 ? EINTR : EAGAIN;
    return -1;
  }
  if (world.bytesBeforeFailure == 0) {
    --world.bytesBeforeFailure;
    return failureUnless(world.error == 0);
  }
  const std::size_t taken = std::min({size, world.writeSize, world.bytesBeforeFailure});
  world.bytesBeforeFailure -= taken;
  (descriptor == kOutputFile ? file : standardOutput).append(static_cast<const char*>(bytes), taken);
  return static_cast<ssize_t>(taken);
}

int __wrap_poll(pollfd* entries, nfds_t count, int milliseconds) {
  if (!isRunning) return __real_poll(entries, count, milliseconds);
  if (count != 1 || entries->events != POLLOUT || milliseconds != -1) RecordingCurl::note("poll");
  entries->revents = POLLOUT;
  return world.error == 0 ? 1 : failureUnless(false);
}

int __wrap_close(int descriptor) {
  if (!isRunning) return __real_close(descriptor);
  RecordingCurl::note("close " + std::to_string(descriptor));
  return failureUnless(world.error == 0);
}

int __wrap_fcntl(int descriptor, int command, long argument) {
  if (!isRunning) return __real_fcntl(descriptor, command, argument);
  RecordingCurl::note("fcntl " + std::to_string(descriptor) + " " + std::to_string(command));
  return descriptor > STDERR_FILENO || world.closed[descriptor] ? -1 : 0;
}

Handler __wrap_signal(int signal, Handler handler) {
  if (!isRunning) return __real_signal(signal, handler);
  RecordingCurl::note("signal " + std::to_string(signal) + (handler == SIG_IGN ? " ignored" : ""));
  return SIG_DFL;
}

// Refuses the reservation: AddressSanitizer would mark each of its bytes twice.
void* __wrap_mmap(void* address, std::size_t size, int protection, int flags, int descriptor, off_t offset) {
  if (!isRunning) return __real_mmap(address, size, protection, flags, descriptor, offset);
  RecordingCurl::note("mmap " + std::to_string(size) + " " + std::to_string(flags));
  return MAP_FAILED;
}

}  // extern "C"

namespace {

Strings piecesOf(const Case& input) {
  Strings pieces;
  for (std::size_t at = 0; at == 0 || at < input.body.size(); at += input.pieceSize) {
    pieces.push_back(input.body.substr(at, input.pieceSize));
  }
  return pieces;
}

std::string end(int status, const std::string& output, const std::string& written) {
  return "exit " + std::to_string(status) + "\n" + inQuotes(output) + "\n" + inQuotes(written) + "\n";
}

std::string performed(const Case& input) {
  Strings arguments = input.arguments;
  std::vector<char*> pointers;
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  pointers.push_back(nullptr);
  RecordingCurl curl;
  curl.givesHandle = input.hasHandle;
  curl.transferResult = input.outcome;
  curl.status = input.status;
  curl.bodyChunks = piecesOf(input);
  world = input;
  writes = 0;
  standardOutput.clear();
  file.clear();
  isRunning = true;
  const int status = toolMain(static_cast<int>(arguments.size()), pointers.data());
  isRunning = false;
  return curl.calls() + end(status, standardOutput, file);
}

// The model: what is expected of a run. It shares nothing with the tool.

// The pieces of `text`, without spaces and tabs at their ends.
Strings cut(const std::string& text, char delimiter) {
  Strings pieces;
  std::istringstream stream(text + delimiter);
  for (std::string piece; std::getline(stream, piece, delimiter); pieces.push_back(piece)) {
    piece.erase(0, piece.find_first_not_of(" \t"));
    piece.erase(piece.find_last_not_of(" \t") + 1);
  }
  return pieces;
}

Strings headerLines(const std::string& text) {
  Strings lines;
  for (const std::string& line : cut(text, '\r')) {
    std::string sent;
    for (std::size_t at = 0; at < line.size(); ++at) {
      const bool isSpace = line.compare(at, 2, "\\s") == 0;
      sent += isSpace ? ' ' : line[at];
      at += isSpace ? 1 : 0;
    }
    if (sent.find(':') != std::string::npos && sent.front() != ':') lines.push_back(sent);
  }
  return lines;
}

std::string setUp(const Case& input) {
  std::ostringstream calls;
  for (const int descriptor : {0, 1, 2}) {
    calls << "fcntl " << descriptor << " " << F_GETFD << "\n";
    if (!input.closed[descriptor]) continue;
    calls << "open \"/dev/null\" " << O_RDWR << "\n";
    if (!input.hasDevNull) calls << "open \"/\" " << O_RDONLY << "\n";
  }
  calls << "signal " << SIGPIPE << " ignored\nsignal " << SIGXFSZ << " ignored\n";
  return calls.str();
}

std::string request(const Strings& fields) {
  const char command = fields[2].c_str()[0];
  const std::string query = command == 'p' || command == 'P' ? "p" : fields[1];
  const std::string url = fields[0] + (query.empty() || query == "-" ? "" : "?" + query);
  const int milliseconds = fields[5].empty() ? 2000 : static_cast<int>(std::strtol(fields[5].c_str(), nullptr, 10));
  std::ostringstream calls;
  calls << "setopt URL " << inQuotes(url) << "\nsetopt POST 0\nsetopt CONNECTTIMEOUT "
        << static_cast<std::uint32_t>(milliseconds / 1000) << "\nsetopt TIMEOUT "
        << static_cast<std::uint32_t>(milliseconds / 500) << "\n";
  if (!fields[4].empty()) calls << "setopt USERAGENT " << inQuotes(fields[4]) << "\n";
  calls << "setopt WRITEFUNCTION writeResponseData\nsetopt WRITEDATA other\nsetopt FOLLOWLOCATION 1\n"
        << "setopt NOPROGRESS 0\nsetopt XFERINFOFUNCTION continueTransfer\n";
  return calls.str();
}

std::string transfer(const Strings& headers, const Case& input) {
  std::ostringstream calls;
  std::string list;
  for (std::size_t count = 0; count < headers.size(); ++count) {
    const std::string line = inQuotes(headers[count]);
    calls << "slist_append " << count << " " << line << "\n";
    list += (list.empty() ? "" : ", ") + line;
  }
  calls << "setopt HTTPHEADER [" << list << "]\nsetopt SSL_VERIFYPEER 0\nsetopt SSL_VERIFYHOST 0\nperform\n";
  std::size_t last = input.body.size() + 1;
  for (const std::string& piece : piecesOf(input)) {
    if (piece.size() != last) calls << "write " << piece.size() << " -> " << piece.size() << "\n";
    last = piece.size();
  }
  calls << "progress -> 0\nslist_free_all [" << list << "]\n"
        << (input.outcome == CURLE_OK ? "getinfo RESPONSE_CODE\n" : "") << "easy_cleanup\n";
  return calls.str();
}

// Writes a text. Where a write fails the rest of the text is lost, unless it is to be tried again.
bool put(const std::string& text, Case& input, std::string& output) {
  const bool isLost = input.bytesBeforeFailure < text.size() && input.error != EINTR && input.error != EAGAIN;
  output += isLost ? text.substr(0, input.bytesBeforeFailure) : text;
  input.bytesBeforeFailure -= text.size();  // behind the failure it wraps, to more than is ever written
  return !isLost;
}

std::string answer(const std::string& path, Case input) {
  const long result = !input.hasHandle ? 99 : input.outcome == CURLE_OK ? input.status : input.outcome;
  const std::string body = input.hasHandle ? input.body : "";
  std::string output;
  std::string written;
  put(std::to_string(result) + "\n", input, output);
  if (path.empty()) {
    if (put(body, input, output) && !body.empty()) put("\n", input, output);
    return "write 1\n" + end(0, output, "");
  }
  const std::string open =
      "open " + inQuotes(path) + " " + std::to_string(O_WRONLY | O_CREAT | O_TRUNC) + " " + std::to_string(0666) + "\n";
  if (!input.opensOutputFile && input.error != EINTR) return "write 1\n" + open + end(0, output, "");
  put(body, input, written);
  return "write 1\n" + (input.opensOutputFile ? "" : open) + open + (body.empty() ? "" : "write 1000000\n") +
         "close 1000000\n" + end(0, output, written);
}

std::string described(const std::string& description, Case input) {
  Strings fields = cut(description, '|');
  fields.resize(7);
  if (fields[0].empty()) {
    std::string output;
    put("-1\n", input, output);
    return "write 1\n" + end(0, output, "");
  }
  const std::string calls = input.hasHandle ? request(fields) + transfer(headerLines(fields[3]), input) : "";
  return "mmap 3489660928 " + std::to_string(MAP_PRIVATE | MAP_ANONYMOUS) + "\nglobal_init ALL\neasy_init\n" + calls +
         "global_cleanup\n" + answer(fields[6], input);
}

// The texts themselves stand in the end-to-end tests: here they are what a first run has printed.
std::string usage(bool withBanner, Case input) {
  static const std::string text = [] {
    performed({});
    return standardOutput;
  }();
  std::istringstream lines(withBanner ? text : text.substr(text.find("\n\n") + 2));
  std::string output;
  for (std::string line; std::getline(lines, line);) put(line + "\n", input, output);
  return "write 1\n" + end(-1, output, "");
}

std::string predicted(const Case& input) {
  bool withBanner = true;
  for (std::size_t i = 1; i < input.arguments.size(); ++i) {
    if (input.arguments[i].find("-web") == std::string::npos) continue;
    if (i + 1 < input.arguments.size()) return setUp(input) + described(input.arguments[i + 1], input);
    withBanner = false;
  }
  return setUp(input) + usage(withBanner, input);
}

// What a run must leave as it was, of the process's own and of what it shares with others.
std::string stateOfProcess() {
  std::ostringstream state;
  for (char** variable = environ; *variable != nullptr; ++variable) state << *variable << '\0';
  for (int descriptor = 0; descriptor < 8; ++descriptor) {
    state << fcntl(descriptor, F_GETFD) << " " << fcntl(descriptor, F_GETFL) << " " << lseek(descriptor, 0, SEEK_CUR);
  }
  for (int signal = 1; signal < 32; ++signal) {
    struct sigaction action = {};
    sigaction(signal, nullptr, &action);
    state << reinterpret_cast<std::uintptr_t>(action.sa_handler) << " ";
  }
  std::array<char, 4096> folder = {};
  const mode_t mask = umask(0);
  umask(mask);
  state << setlocale(LC_ALL, nullptr) << mask << getcwd(folder.data(), folder.size());
  return state.str();
}

std::string expanded(const std::uint8_t* begin, const std::uint8_t* end) {
  std::string text;
  std::size_t field = 0;
  for (const std::uint8_t* byte = begin; byte != end; ++byte) {
    if (*byte != kThousandCopies) {
      text += static_cast<char>(*byte);
      if (*byte == '|' || *byte == '\0') field = text.size();
    } else if (const std::string part = text.substr(field); part.size() <= 100 && text.size() < 200'000) {
      for (int copy = 0; copy < 1000; ++copy) text += part;
    }
  }
  return text;
}

Case readCase(const std::uint8_t* data, std::size_t size) {
  const auto bit = [&](unsigned int number) { return (data[1] >> number & 1U) != 0; };
  Case input;
  input.writeSize = (std::size_t{data[0]} + 1) * (data[0] + 1U);
  for (const unsigned int descriptor : {0U, 1U, 2U}) input.closed[descriptor] = bit(descriptor);
  input.hasDevNull = !bit(3);
  input.opensOutputFile = !bit(4);
  input.hasHandle = !bit(5);
  input.outcome = static_cast<CURLcode>(data[2] % CURL_LAST);
  input.status = data[3] + 256 * data[4];
  input.error = data[5];
  input.bytesBeforeFailure = data[6] + 256U * data[7];
  std::istringstream texts(expanded(data + kHeaderSize, data + size));
  while (std::getline(texts, input.body, '\0') && !texts.eof()) input.arguments.push_back(input.body);
  input.pieceSize = bit(6) ? 1 : bit(7) ? 16'384 : input.body.size() / 2 + 1;
  return input;
}

void check(const Case& input) {
  const std::string expected = predicted(input);  // first: the fuzzer mutates towards what was compared last
  const std::string before = stateOfProcess();
  const std::string seen = performed(input);
  if (seen == expected && stateOfProcess() == before) return;
  std::cerr << "expected:\n" << expected << "seen:\n" << seen;
  std::abort();
}

// Every errno of every call that can fail.
bool checkErrors() {
  const struct {
    const char* description;
    std::size_t bytesBeforeFailure;
    bool opens;
  } rows[] = {{"U", 2, true}, {"U", 6, true}, {"U||||||out", 6, true}, {"U||||||out", 6, false}};
  for (const auto& row : rows) {
    Case input;
    input.arguments = {"webreq", "-web", row.description};
    input.body = "a body";
    input.bytesBeforeFailure = row.bytesBeforeFailure;
    input.hasDevNull = input.opensOutputFile = row.opens;
    input.closed[0] = true;
    for (input.error = 0; input.error < 256; ++input.error) check(input);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const bool areErrorsChecked = checkErrors();
  if (areErrorsChecked && size >= kHeaderSize) check(readCase(data, size));
  return 0;
}

extern "C" std::size_t LLVMFuzzerMutate(std::uint8_t* data, std::size_t size, std::size_t largest);

// Mutates one field, header line or argument by itself, or makes it anew: so it becomes a special value as a whole.
extern "C" std::size_t LLVMFuzzerCustomMutator(std::uint8_t* data, std::size_t size, std::size_t largest,
                                               unsigned int seed) {
  std::uint8_t* const arguments = data + std::min(size, kHeaderSize);
  const bool becomesShort = seed / 4096 % 16 != 0;  // for speed
  if (becomesShort) size = static_cast<std::size_t>(std::remove(arguments, data + size, kThousandCopies) - data);
  std::vector<std::uint8_t*> ends;
  for (std::uint8_t* byte = arguments; byte != data + size; ++byte) {
    if (*byte == '|' || *byte == '\r' || *byte == '\0') ends.push_back(byte);
  }
  ends.push_back(data + size);
  const std::size_t chosen = seed % (ends.size() + 1);
  if (size == largest || chosen == ends.size()) return LLVMFuzzerMutate(data, size, largest);
  std::uint8_t* const begin = chosen == 0 ? data : ends[chosen - 1] + 1;
  const std::vector<std::uint8_t> rest(ends[chosen], data + size);
  const auto before = static_cast<std::size_t>(begin - data);
  const std::size_t length = seed / 1024 % 4 == 0 ? 0 : static_cast<std::size_t>(ends[chosen] - begin);
  std::uint8_t* const end = begin + LLVMFuzzerMutate(begin, length, largest - before - rest.size());
  return static_cast<std::size_t>(std::copy(rest.begin(), rest.end(), end) - data);
}
