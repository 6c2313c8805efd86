// What the loader's parts share.
#pragma once

#include <cstddef>
#include <string_view>

namespace macho {

// Ends the process with status 126, and a line on standard error: "load: " and the text.
[[noreturn]] [[gnu::format(printf, 1, 2)]] void refuse(const char* format, ...);

// The address of what macOS's library exports under this name, or null if it isn't known here: libcurl's functions are
// those of Linux's libcurl, libSystem's are the C library's or stand in for them.
const void* findInLibrary(std::string_view library, std::string_view symbol);

// Where an image says how its functions are unwound, as libunwind has it.
struct UnwindSections {
  const void* header;
  const void* dwarf;
  std::size_t dwarfSize;
  const void* compact;
  std::size_t compactSize;
};

// Sets `sections` to those of the image that holds the address. Returns whether there is one.
bool findUnwindSections(const void* address, UnwindSections* sections);

}  // namespace macho
