#include "stream.h"

#include <cstring>

#include "refuse.h"

namespace macho {

Stream::Stream(const Image& image, Range range, std::uint64_t position) : image_(image) {
  const std::uint8_t* const begin = contentInMemory(image, range);
  if (position > range.size) refuse("%s: a position behind what it is in", image.path);
  position_ = begin + position;
  end_ = begin + range.size;
}

std::uint8_t Stream::byte() {
  if (position_ == end_) refuse("%s: what to rebase, bind or export ends too early", image_.path);
  return *position_++;
}

std::uint64_t Stream::unsignedNumber() {
  std::uint64_t number = 0;
  std::uint8_t next = 0x80;
  for (unsigned shift = 0; (next & 0x80U) != 0; shift += 7) {
    if (shift > 63) refuse("%s: a number of more than 64 bits", image_.path);
    next = byte();
    number |= std::uint64_t{next & 0x7FU} << shift;
  }
  return number;
}

std::int64_t Stream::signedNumber() {
  const std::uint8_t* const begin = position_;
  std::uint64_t number = unsignedNumber();
  const auto bits = static_cast<unsigned>(7 * (position_ - begin));
  const bool isNegative = (position_[-1] & 0x40U) != 0;
  if (isNegative && bits < 64) number |= ~std::uint64_t{0} << bits;
  return static_cast<std::int64_t>(number);
}

std::string_view Stream::text() {
  const auto* const begin = reinterpret_cast<const char*>(position_);
  while (byte() != 0) {
  }
  return {begin, static_cast<std::size_t>(reinterpret_cast<const char*>(position_) - begin - 1)};
}

}  // namespace macho
