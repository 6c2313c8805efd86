// The images of the process, and what they ask of their loader.
#pragma once

#include <cstddef>
#include <string_view>

#include "image.h"

namespace macho {

// Keeps an image, the executable first, then libunwind. Returns where it is from now on.
const Image& addImage(const Image& image);

// Finds an import as bind() asks for it: a weak one in the images alone, any other in the library; libSystem includes
// libunwind. Refuses what isn't known.
const void* findImport(std::string_view library, std::string_view symbol);

// As libunwind has it.
struct UnwindSections {
  const void* header;
  const void* dwarf;
  std::size_t dwarfSize;
  const void* compact;
  std::size_t compactSize;
};

// Where the image that holds an address says how its functions are unwound. Returns whether there is such an image.
bool findUnwindSections(const void* address, UnwindSections* sections);

}  // namespace macho
