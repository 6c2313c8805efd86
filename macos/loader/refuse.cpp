#include "refuse.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>

namespace macho {

void refuse(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  dprintf(STDERR_FILENO, "load: %s\n", text);
  _exit(126);
}

}  // namespace macho
