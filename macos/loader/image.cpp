#include "image.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "refuse.h"

namespace macho {

namespace {

struct Slice {
  const char* path;
  int file;
  std::uint64_t offset;
  std::uint64_t size;
  const std::uint8_t* content;
};

std::string_view nameOf(const char (&name)[16]) { return {name, strnlen(name, sizeof name)}; }

// __PAGEZERO is in front of it, in executables alone.
std::size_t indexOfText(const Image& image) { return image.header->fileType == kExecutable ? 1 : 0; }

bool isPageBoundary(std::uint64_t position) { return position % kPageSize == 0; }

std::uint64_t roundUpToPages(std::uint64_t size) { return (size + kPageSize - 1) / kPageSize * kPageSize; }

// The whole file, to look into.
Slice openFile(const char* path) {
  const int file = open(path, O_RDONLY | O_CLOEXEC);
  struct stat status = {};
  if (file == -1 || fstat(file, &status) == -1) refuse("%s: %s", path, std::strerror(errno));
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (size < sizeof(Header)) refuse("%s: too short for a header", path);
  void* const content = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file, 0);
  if (content == MAP_FAILED) refuse("%s: %s", path, std::strerror(errno));
  return {path, file, 0, size, static_cast<const std::uint8_t*>(content)};
}

// The slice for this architecture; a file that isn't universal is one itself.
Slice findSlice(const Slice& file) {
  const auto* const header = reinterpret_cast<const UniversalHeader*>(file.content);
  if (be32toh(header->magic) != kUniversalMagic) return file;
  const std::uint32_t count = be32toh(header->sliceCount);
  const auto* const slices = reinterpret_cast<const UniversalSlice*>(header + 1);
  if (count > (file.size - sizeof *header) / sizeof *slices) refuse("%s: more slices than content", file.path);
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::uint64_t offset = be32toh(slices[i].offset);
    const std::uint64_t size = be32toh(slices[i].size);
    if (be32toh(slices[i].cpuType) != kCpuType) continue;
    if (!isPageBoundary(offset)) refuse("%s: the slice isn't on a page boundary", file.path);
    if (offset + size > file.size) refuse("%s: the slice ends behind the file", file.path);
    return {file.path, file.file, offset, size, file.content + offset};
  }
  refuse("%s: has no slice for this architecture", file.path);
}

void checkHeader(const Slice& slice, FileType type) {
  const auto* const header = reinterpret_cast<const Header*>(slice.content);
  if (slice.size < sizeof *header || header->magic != kMagic) refuse("%s: is no Mach-O file of 64 bits", slice.path);
  if (header->cpuType != kCpuType) refuse("%s: is for another architecture", slice.path);
  if (header->fileType != type) refuse("%s: has the file type %u, not %u", slice.path, header->fileType, type);
  if (type == kExecutable && (header->flags & kPositionIndependent) == 0) {
    refuse("%s: isn't position-independent", slice.path);
  }
  if (header->commandsSize > slice.size - sizeof *header) refuse("%s: load commands behind the end", slice.path);
}

// Calls `take` with each load command.
template <class Take>
void forEachCommand(const char* path, const Header* header, Take take) {
  const auto* position = reinterpret_cast<const std::uint8_t*>(header + 1);
  const std::uint8_t* const end = position + header->commandsSize;
  for (std::uint32_t i = 0; i < header->commandCount; ++i) {
    const auto* const command = reinterpret_cast<const Command*>(position);
    const auto left = static_cast<std::size_t>(end - position);
    if (left < sizeof *command || command->size < sizeof *command || command->size > left) {
      refuse("%s: load command %u is longer than the load commands", path, i);
    }
    take(command);
    position += command->size;
  }
}

template <class Kind>
const Kind* as(const char* path, const Command* command) {
  if (command->size < sizeof(Kind)) refuse("%s: a load command of kind %#x is too short", path, command->kind);
  return static_cast<const Kind*>(command);
}

std::string_view pathIn(const char* path, const Command* command) {
  const auto* const withPath = as<PathCommand>(path, command);
  if (withPath->pathOffset >= command->size) refuse("%s: a path outside its load command", path);
  const char* const text = reinterpret_cast<const char*>(command) + withPath->pathOffset;
  return {text, strnlen(text, command->size - withPath->pathOffset)};
}

template <class Value, std::size_t size>
void append(const char* path, std::array<Value, size>& list, std::size_t& count, Value value) {
  if (count == size) refuse("%s: more than %zu segments or libraries", path, size);
  list[count++] = value;
}

// Commands that the loader needs are remembered; others of which it must know what they mean are refused.
void readCommand(Image& image, const Command* command) {
  switch (command->kind) {
    case kSegment:
      append(image.path, image.segments, image.segmentCount, as<SegmentCommand>(image.path, command));
      break;
    case kLoadLibrary:
      append(image.path, image.libraries, image.libraryCount, pathIn(image.path, command));
      break;
    case kDynamicLinker:
      if (pathIn(image.path, command) != "/usr/lib/dyld") refuse("%s: the loader isn't /usr/lib/dyld", image.path);
      break;
    case kDyldInfo:
      image.info = as<DyldInfoCommand>(image.path, command);
      break;
    case kEntryPoint:
      image.entryPoint = as<EntryPointCommand>(image.path, command);
      break;
    default:
      if ((command->kind & kRequired) != 0) refuse("%s: has a load command of kind %#x", image.path, command->kind);
  }
}

Image readCommands(const char* path, const Header* header) {
  Image image = {};
  image.path = path;
  image.header = header;
  forEachCommand(path, header, [&](const Command* command) { readCommand(image, command); });
  if (image.info == nullptr) refuse("%s: doesn't say what to rebase and to bind", path);
  if (header->fileType == kExecutable && image.entryPoint == nullptr) refuse("%s: has no entry point", path);
  return image;
}

void checkSegment(const Slice& slice, const SegmentCommand& segment) {
  const char* const name = segment.name;
  if (!isPageBoundary(segment.address) || !isPageBoundary(segment.offset)) {
    refuse("%s: %.16s isn't on page boundaries", slice.path, name);
  }
  if (segment.offset > slice.size || segment.contentSize > slice.size - segment.offset) {
    refuse("%s: %.16s has content behind the end", slice.path, name);
  }
  if (segment.contentSize > segment.addressSize) {
    refuse("%s: %.16s has more content than addresses", slice.path, name);
  }
  if (segment.sectionCount > (segment.size - sizeof segment) / sizeof(Section)) {
    refuse("%s: %.16s has more sections than its load command", slice.path, name);
  }
}

// Types of sections that need nothing beyond rebasing and binding. Initialisers and variables of threads do.
bool isKnownType(std::uint32_t type) {
  constexpr std::uint32_t kKnown = 1U << 0x0U                                           // regular
                                   | 1U << 0x1U                                         // zeros
                                   | 1U << 0x2U | 1U << 0x3U | 1U << 0x4U | 1U << 0xEU  // strings, literals
                                   | 1U << 0x6U | 1U << 0x7U                            // pointers, lazy pointers
                                   | 1U << 0x8U                                         // stubs
                                   | 1U << 0xBU;  // of which one definition counts
  return type < 32 && (kKnown >> type & 1U) != 0;
}

void checkSections(const Slice& slice, const SegmentCommand& segment) {
  const auto* const sections = reinterpret_cast<const Section*>(&segment + 1);
  for (std::uint32_t i = 0; i < segment.sectionCount; ++i) {
    const Section& section = sections[i];
    const std::uint64_t begin = section.address - segment.address;
    if (begin > segment.addressSize || section.size > segment.addressSize - begin) {
      refuse("%s: %.16s isn't inside %.16s", slice.path, section.name, segment.name);
    }
    if (!isKnownType(section.flags & 0xFFU)) {
      refuse("%s: %.16s is of type %#x", slice.path, section.name, section.flags & 0xFFU);
    }
  }
}

// __PAGEZERO, which makes null pointers faults, takes the first 4 GiB; the header is the beginning of __TEXT, and
// __LINKEDIT the end.
void checkLayout(const Slice& slice, const Image& image) {
  const std::size_t textIndex = indexOfText(image);
  if (image.segmentCount < textIndex + 2) refuse("%s: has too few segments", slice.path);
  const SegmentCommand& first = *image.segments[0];
  if (textIndex == 1 && (nameOf(first.name) != "__PAGEZERO" || first.address != 0 ||
                         first.addressSize != std::uint64_t{1} << 32U || first.protection != 0)) {
    refuse("%s: doesn't begin with a __PAGEZERO of 4 GiB", slice.path);
  }
  const SegmentCommand& text = *image.segments[textIndex];
  if (nameOf(text.name) != "__TEXT" || text.offset != 0 ||
      text.contentSize < sizeof(Header) + image.header->commandsSize) {
    refuse("%s: the header isn't in __TEXT", slice.path);
  }
  if (nameOf(image.segments[image.segmentCount - 1]->name) != "__LINKEDIT") {
    refuse("%s: __LINKEDIT isn't the last segment", slice.path);
  }
  for (std::size_t i = 1; i < image.segmentCount; ++i) {
    const SegmentCommand& former = *image.segments[i - 1];
    if (image.segments[i]->address < former.address + former.addressSize) {
      refuse("%s: %.16s isn't behind %.16s", slice.path, image.segments[i]->name, former.name);
    }
  }
}

int protectionOf(std::int32_t protection) {
  return ((protection & kReadable) != 0 ? PROT_READ : 0) | ((protection & kWritable) != 0 ? PROT_WRITE : 0) |
         ((protection & kRunnable) != 0 ? PROT_EXEC : 0);
}

// Addresses for all segments from __TEXT on, in one piece, at a page boundary of macOS.
std::uint8_t* reserveAddresses(const Image& image, std::uint64_t begin) {
  const SegmentCommand& last = *image.segments[image.segmentCount - 1];
  const std::uint64_t size = roundUpToPages(last.address + last.addressSize) - begin;
  void* const space = mmap(nullptr, size + kPageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (space == MAP_FAILED) refuse("%s: %s", image.path, std::strerror(errno));
  const auto address = reinterpret_cast<std::uint64_t>(space);
  return static_cast<std::uint8_t*>(space) + (roundUpToPages(address) - address);
}

void mapAt(const char* path, std::uint8_t* address, std::uint64_t size, int protection, int flags, int file,
           std::uint64_t offset) {
  if (size == 0) return;
  void* const mapped =
      mmap(address, size, protection, MAP_FIXED | MAP_PRIVATE | flags, file, static_cast<off_t>(offset));
  if (mapped == MAP_FAILED) refuse("%s: %s", path, std::strerror(errno));
}

// The content of the file first, zeros in what is left of the addresses.
void mapSegment(const Image& image, const Slice& slice, const SegmentCommand& segment) {
  std::uint8_t* const address = addressInMemory(image, segment.address);
  const std::uint64_t content = roundUpToPages(segment.contentSize);
  const std::uint64_t size = roundUpToPages(segment.addressSize);
  const int protection = protectionOf(segment.protection);
  mapAt(slice.path, address, segment.contentSize, protection, 0, slice.file, slice.offset + segment.offset);
  mapAt(slice.path, address + content, size - content, protection, MAP_ANONYMOUS, -1, 0);
}

}  // namespace

Image mapImage(const char* path, FileType type) {
  const Slice file = openFile(path);
  const Slice slice = findSlice(file);
  checkHeader(slice, type);
  Image image = readCommands(path, reinterpret_cast<const Header*>(slice.content));
  for (std::size_t i = 0; i < image.segmentCount; ++i) checkSegment(slice, *image.segments[i]);
  checkLayout(slice, image);
  for (std::size_t i = 0; i < image.segmentCount; ++i) checkSections(slice, *image.segments[i]);
  const std::size_t first = indexOfText(image);  // nothing is ever mapped where __PAGEZERO is
  image.text = reserveAddresses(image, image.segments[first]->address);
  image.slide = reinterpret_cast<std::uint64_t>(image.text) - image.segments[first]->address;
  for (std::size_t i = first; i < image.segmentCount; ++i) mapSegment(image, slice, *image.segments[i]);
  close(file.file);
  return image;
}

void protectConstants(const Image& image) {
  for (std::size_t i = 0; i < image.segmentCount; ++i) {
    const SegmentCommand& segment = *image.segments[i];
    if ((segment.flags & kReadOnlyOnceBound) == 0) continue;
    if (mprotect(addressInMemory(image, segment.address), roundUpToPages(segment.addressSize), PROT_READ) != 0) {
      refuse("%s: its constants can't be protected", image.path);
    }
  }
}

std::uint8_t* addressInMemory(const Image& image, std::uint64_t address) {
  return image.text + (address - image.segments[indexOfText(image)]->address);
}

const std::uint8_t* contentInMemory(const Image& image, Range range) {
  const SegmentCommand& segment = *image.segments[image.segmentCount - 1];
  const std::uint64_t begin = range.offset - segment.offset;
  if (range.size != 0 && (range.offset < segment.offset || begin + range.size > segment.contentSize)) {
    refuse("%s: something to load from isn't in __LINKEDIT", image.path);
  }
  return addressInMemory(image, segment.address + begin);
}

const Section* findSection(const Image& image, std::string_view segment, std::string_view section) {
  for (std::size_t i = 0; i < image.segmentCount; ++i) {
    const auto* const sections = reinterpret_cast<const Section*>(image.segments[i] + 1);
    for (std::uint32_t j = 0; j < image.segments[i]->sectionCount; ++j) {
      if (nameOf(sections[j].segmentName) == segment && nameOf(sections[j].name) == section) return &sections[j];
    }
  }
  return nullptr;
}

bool contains(const Image& image, const void* address) {
  const std::uint64_t unslid = reinterpret_cast<std::uint64_t>(address) - image.slide;
  for (std::size_t i = 0; i < image.segmentCount; ++i) {
    const SegmentCommand& segment = *image.segments[i];
    if (segment.protection != 0 && unslid - segment.address < segment.addressSize) return true;
  }
  return false;
}

}  // namespace macho
