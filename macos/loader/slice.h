// What prepare_slice.py writes: a slice of the executable and, behind it, libunwind, each as it is in memory.
#pragma once

#include <cstddef>
#include <cstdint>

#include "load.h"

extern "C" std::uint8_t executable[], libunwind[], endOfImages[];

namespace macho {

struct Segment {
  std::uint8_t* begin;
  std::size_t size;
  int protection;  // once all is bound; macOS and Linux have the same numbers
};

struct Import {
  std::uint8_t* pointer;  // what gets the address
  const char* library;
  const char* symbol;
  const void* address;  // in libunwind; null if findInLibrary knows it
  std::int64_t addend;
  std::int64_t lazyBinding;  // the number by which a stub's helper asks for it; -1 if it is bound at launch
};

extern const Segment kSegments[];  // ends with one that begins at null
extern const Import kImports[];    // ends with one whose pointer is null
extern const UnwindSections kUnwindSections[2];
extern std::uint8_t* const kEntryPoint;

}  // namespace macho
