// Runs a program for 64-bit Arm through qemu, under the name that this one is called by. Linked statically: what tests
// preload goes to the Arm program alone.
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int argument_count, char** arguments) {
  const char* const beginning[] = {QEMU, "-L", ROOT, "-0", arguments[0], PROGRAM};
  const char* command[sizeof beginning / sizeof *beginning + (size_t)argument_count];
  memcpy(command, beginning, sizeof beginning);
  memcpy(command + sizeof beginning / sizeof *beginning, arguments + 1, (size_t)argument_count * sizeof *arguments);
  const char* const preloaded = getenv("LD_PRELOAD");
  char* setting = NULL;
  if (preloaded != NULL && asprintf(&setting, "LD_PRELOAD=%s", preloaded) != -1) {
    setenv("QEMU_SET_ENV", setting, 1);
    unsetenv("LD_PRELOAD");
  }
  execv(QEMU, (char**)command);
  return 127;
}
