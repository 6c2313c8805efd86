// How everything ends here that the loader doesn't know or a rule forbids.
#pragma once

namespace macho {

// Writes "load: ", the text and a line feed to standard error and ends the process with status 126.
[[noreturn]] [[gnu::format(printf, 1, 2)]] void refuse(const char* format, ...);

}  // namespace macho
