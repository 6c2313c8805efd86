// fetch URL: the body of the answer on standard output. Exits with status 1 when the request fails.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <iostream>
#include <stdexcept>
#include <string>

extern char** environ;  // NOLINT(readability-redundant-declaration): only glibc declares it

namespace {

struct Answer {
  int result;  // a status code, or a failure code
  std::string body;
};

// A bar would begin the next field.
std::string escapeBars(std::string url) {
  for (std::size_t bar = 0; (bar = url.find('|', bar)) != std::string::npos;) url.replace(bar, 1, "%7C");
  return url;
}

int spawn(pid_t& process, const std::array<const char*, 4>& command, int output) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  const int error =
      posix_spawnp(&process, command[0], &actions, nullptr, const_cast<char* const*>(command.data()), environ);
  posix_spawn_file_actions_destroy(&actions);
  return error;
}

// A running command. Its destructor closes the pipe that its output comes through and awaits its end.
class Process {
 public:
  explicit Process(const std::array<const char*, 4>& command) {
    std::array<int, 2> ends = {};
    if (pipe(ends.data()) != 0) throw std::runtime_error("there is no pipe to be had");
    for (const int end : ends) fcntl(end, F_SETFD, FD_CLOEXEC);  // pipe2 does it at once; macOS lacks it
    const int error = spawn(id_, command, ends[1]);
    close(ends[1]);
    output_ = ends[0];
    if (error == 0) return;
    close(output_);
    throw std::runtime_error("webreq can't be started");
  }

  ~Process() {
    close(output_);
    waitpid(id_, nullptr, 0);
  }

  // Awaits the end. The destructor finds it once more.
  bool hasSucceeded() const {
    siginfo_t end = {};
    waitid(P_PID, static_cast<id_t>(id_), &end, WEXITED | WNOWAIT);
    return end.si_code == CLD_EXITED && end.si_status == 0;
  }

  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  std::string readAll() const {
    std::string bytes;
    std::array<char, 65536> buffer;
    while (true) {
      const ssize_t count = read(output_, buffer.data(), buffer.size());
      if (count == 0) return bytes;
      if (count > 0) {
        bytes.append(buffer.data(), static_cast<std::size_t>(count));
      } else if (errno != EINTR) {
        throw std::runtime_error("the output of webreq can't be read");
      }
    }
  }

 private:
  pid_t id_ = 0;
  int output_ = 0;
};

Answer request(const std::string& url) {
  const std::string description = escapeBars(url);
  const Process process({"webreq", "-web", description.c_str(), nullptr});
  std::string output = process.readAll();
  if (!process.hasSucceeded()) throw std::runtime_error("webreq was stopped");
  const std::size_t lineEnd = output.find('\n');
  if (lineEnd == std::string::npos) throw std::runtime_error("webreq gave no answer");
  if (output.size() > lineEnd + 1) output.pop_back();  // the line feed after the body
  return {std::stoi(output), output.substr(lineEnd + 1)};
}

}  // namespace

int main(int count, char** arguments) try {
  if (count < 2) {
    std::cerr << "usage: fetch URL\n";
    return 2;
  }
  const Answer answer = request(arguments[1]);
  if (answer.result < 200 || answer.result > 299) {
    throw std::runtime_error("the result is " + std::to_string(answer.result));
  }
  std::cout << answer.body << std::flush;
} catch (const std::exception& error) {
  std::cerr << "fetch: " << error.what() << '\n';
  return 1;
}
