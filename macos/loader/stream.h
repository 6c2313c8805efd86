// The numbers and names that rebases, bindings and exports are made of.
#pragma once

#include <cstdint>
#include <string_view>

#include "format.h"
#include "image.h"

namespace macho {

// Reads on from a position in a part of an image's __LINKEDIT. Refuses to read behind the part's end.
class Stream {
 public:
  Stream(const Image& image, Range range, std::uint64_t position = 0);

  bool atEnd() const { return position_ == end_; }
  std::uint8_t byte();
  std::uint64_t unsignedNumber();  // ULEB128
  std::int64_t signedNumber();     // SLEB128
  std::string_view text();         // up to a NUL byte

 private:
  const Image& image_;
  const std::uint8_t* position_;
  const std::uint8_t* end_;
};

}  // namespace macho
