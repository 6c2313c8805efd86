#include "rebase.h"

#include "fixup.h"
#include "refuse.h"
#include "stream.h"

namespace macho {

namespace {

// The upper half of an opcode's byte; the lower half is a small number.
enum Opcode : std::uint8_t {
  kDone = 0x00,
  kSetType = 0x10,
  kMoveTo = 0x20,
  kMoveBy = 0x30,
  kMoveByPointers = 0x40,
  kRebase = 0x50,
  kRebaseTimes = 0x60,
  kRebaseAndMoveBy = 0x70,
  kRebaseTimesSkipping = 0x80,
};

constexpr unsigned kPointerType = 1;

void rebaseTimes(const Image& image, FixUp& place, std::uint64_t times, std::uint64_t skipping = 0) {
  for (std::uint64_t i = 0; i < times; ++i) {
    place.pointer() += image.slide;
    place.moveBy(sizeof(std::uint64_t) + skipping);
  }
}

// Returns whether there is more to do.
bool perform(const Image& image, Stream& stream, FixUp& place) {
  const std::uint8_t byte = stream.byte();
  const std::uint8_t small = byte & 0x0FU;
  switch (byte & 0xF0U) {
    case kDone:
      return false;
    case kSetType:
      if (small != kPointerType) refuse("%s: rebases something of type %u", image.path, small);
      return true;
    case kMoveTo:
      place.moveTo(small, stream.unsignedNumber());
      return true;
    case kMoveBy:
      place.moveBy(stream.unsignedNumber());
      return true;
    case kMoveByPointers:
      place.moveBy(small * sizeof(std::uint64_t));
      return true;
    case kRebase:
      rebaseTimes(image, place, small);
      return true;
    case kRebaseTimes:
      rebaseTimes(image, place, stream.unsignedNumber());
      return true;
    case kRebaseAndMoveBy:
      rebaseTimes(image, place, 1, stream.unsignedNumber());
      return true;
    case kRebaseTimesSkipping: {
      const std::uint64_t times = stream.unsignedNumber();
      rebaseTimes(image, place, times, stream.unsignedNumber());
      return true;
    }
    default:
      refuse("%s: has a rebase opcode %#x", image.path, byte);
  }
}

}  // namespace

void rebase(const Image& image) {
  Stream stream(image, image.info->rebases);
  FixUp place(image);
  while (!stream.atEnd() && perform(image, stream, place)) {
  }
}

}  // namespace macho
