// fetch URL: the body of the answer on standard output. Exits with status 1 when the request fails.
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <iostream>
#include <stdexcept>
#include <string>

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

// Starts the tool; `ends` becomes a pipe that its output comes through.
pid_t start(const std::string& description, std::array<int, 2>& ends) {
  if (pipe(ends.data()) != 0) throw std::runtime_error("there is no pipe to be had");
  const pid_t process = fork();
  if (process == 0) {
    dup2(ends[1], STDOUT_FILENO);
    for (const int end : ends) close(end);
    execlp("webreq", "webreq", "-web", description.c_str(), nullptr);
    _exit(127);
  }
  close(ends[1]);
  if (process < 0) throw std::runtime_error("no process can be started");
  return process;
}

// Closes the descriptor.
std::string readAll(int descriptor) {
  std::string bytes;
  std::array<char, 65536> buffer;
  ssize_t count = 0;
  while ((count = read(descriptor, buffer.data(), buffer.size())) > 0) {
    bytes.append(buffer.data(), static_cast<std::size_t>(count));
  }
  close(descriptor);
  if (count < 0) throw std::runtime_error("the output of webreq can't be read");
  return bytes;
}

Answer request(const std::string& url) {
  std::array<int, 2> ends = {};
  const pid_t process = start(escapeBars(url), ends);
  std::string output = readAll(ends[0]);
  int status = 0;
  if (waitpid(process, &status, 0) != process || status != 0)
    throw std::runtime_error("webreq could not be started, or was stopped");
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
