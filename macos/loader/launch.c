// Stands in for the tool where tests expect a program: starts the loader with the beginning of its command line,
// COMMAND, then its own name and arguments. Linked statically, so that what tests preload goes to the loader alone.
#define _GNU_SOURCE
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static const char* const command[] = {COMMAND};

// qemu takes what is to be preloaded into the program that it translates from another variable.
static void hand_over_preloaded(void) {
  const char* const preloaded = getenv("LD_PRELOAD");
  char* setting = NULL;
  if (preloaded == NULL || asprintf(&setting, "LD_PRELOAD=%s", preloaded) == -1) return;
  setenv("QEMU_SET_ENV", setting, 1);
  unsetenv("LD_PRELOAD");
}

int main(int argument_count, char** arguments) {
  const size_t words = sizeof command / sizeof *command;
  const char** const all = calloc(words + (size_t)argument_count + 1, sizeof *all);
  if (all == NULL) return 127;
  memcpy(all, command, sizeof command);
  memcpy(all + words, arguments, (size_t)argument_count * sizeof *arguments);
  if (IS_TRANSLATED) hand_over_preloaded();
  execv(all[0], (char**)all);
  return 127;
}
