// A place in an image that gets an address: rebases and bindings name it in the same way.
#pragma once

#include <cstdint>

#include "image.h"

namespace macho {

class FixUp {
 public:
  explicit FixUp(const Image& image) : image_(image) {}

  void moveTo(std::uint64_t segment, std::uint64_t offset);
  void moveBy(std::uint64_t distance) { offset_ += distance; }

  // The pointer at this place. Refuses one that isn't inside a writable segment.
  std::uint64_t& pointer() const;

 private:
  const Image& image_;
  std::uint64_t segment_ = 0;
  std::uint64_t offset_ = 0;
};

}  // namespace macho
