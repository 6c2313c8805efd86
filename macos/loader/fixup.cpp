#include "fixup.h"

#include "refuse.h"

namespace macho {

void FixUp::moveTo(std::uint64_t segment, std::uint64_t offset) {
  segment_ = segment;
  offset_ = offset;
}

std::uint64_t& FixUp::pointer() const {
  if (segment_ >= image_.segmentCount) refuse("%s: has no segment %lu", image_.path, segment_);
  const SegmentCommand& segment = *image_.segments[segment_];
  const bool isInside = offset_ < segment.addressSize && segment.addressSize - offset_ >= sizeof(std::uint64_t);
  if (!isInside || (segment.protection & kWritable) == 0) {
    refuse("%s: a pointer at %#lx of %.16s, which can't have one", image_.path, offset_, segment.name);
  }
  return *reinterpret_cast<std::uint64_t*>(addressInMemory(image_, segment.address + offset_));
}

}  // namespace macho
