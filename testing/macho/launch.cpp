// Stands in for the tool where tests expect a program: starts the loader with what comes first in its command, COMMAND,
// then its own name and arguments. Linked statically, so that what tests preload goes to the loader alone.
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

// qemu takes what is to be preloaded into the program that it translates from another variable.
void handOverPreloaded() {
  const char* const preloaded = std::getenv("LD_PRELOAD");
  if (preloaded == nullptr) return;
  setenv("QEMU_SET_ENV", ("LD_PRELOAD=" + std::string(preloaded)).c_str(), 1);
  unsetenv("LD_PRELOAD");
}

}  // namespace

int main(int argumentCount, char** arguments) {
  std::vector<const char*> command = {COMMAND};
  if (IS_TRANSLATED) handOverPreloaded();
  command.insert(command.end(), arguments, arguments + argumentCount);
  command.push_back(nullptr);
  execv(command[0], const_cast<char**>(command.data()));
  return 127;
}
