// First step: a slice becomes an image in memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "format.h"

namespace macho {

// A mapped slice, and what its load commands say. All memory stays until the process ends.
struct Image {
  const char* path;
  const Header* header;
  std::uint8_t* text;   // __TEXT in memory: the header, from which on exports and the entry point are counted
  std::uint64_t slide;  // what is added to an address of the file to get one in memory
  std::size_t segmentCount;
  std::array<const SegmentCommand*, 16> segments;
  std::size_t libraryCount;
  std::array<std::string_view, 16> libraries;
  const DyldInfoCommand* info;
  const EntryPointCommand* entryPoint;  // null in a library
};

// Maps the slice for this machine's architecture out of the file at `path` as the kernel and dyld do, at addresses that
// the system chooses. Refuses what isn't of the given type or breaks a rule of theirs.
Image mapImage(const char* path, FileType type);

// Makes read-only what is to be so once all is bound.
void protectConstants(const Image& image);

// Where an address of the file is in memory.
std::uint8_t* addressInMemory(const Image& image, std::uint64_t address);

// Where a part of __LINKEDIT is in memory. Refuses one outside it.
const std::uint8_t* contentInMemory(const Image& image, Range range);

// Null if the image has no such section.
const Section* findSection(const Image& image, std::string_view segment, std::string_view section);

bool contains(const Image& image, const void* address);

}  // namespace macho
