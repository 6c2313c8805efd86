// What the images import: libcurl's functions are Linux's libcurl's, libSystem's are the C library's or stand in for
// them.
#pragma once

#include <string_view>

namespace macho {

// The address of what macOS's library exports under this name, or null if it isn't known here.
const void* findInLibrary(std::string_view library, std::string_view symbol);

}  // namespace macho
