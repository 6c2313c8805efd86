// What is read here of the Mach-O format, which a file for macOS has: numbers are little-endian, except in the list of
// the slices of a universal file. Apple's <mach-o/loader.h> has the same with other names.
#pragma once

#include <cstdint>

namespace macho {

#if defined(__x86_64__)
constexpr std::uint32_t kCpuType = 0x01000007;
constexpr std::uint64_t kPageSize = 0x1000;  // of macOS
#elif defined(__aarch64__)
constexpr std::uint32_t kCpuType = 0x0100000C;
constexpr std::uint64_t kPageSize = 0x4000;
#endif

// A universal file begins with this and then has a UniversalSlice for each architecture; all of it is big-endian.
constexpr std::uint32_t kUniversalMagic = 0xCAFEBABE;

struct UniversalHeader {
  std::uint32_t magic;
  std::uint32_t sliceCount;
};

struct UniversalSlice {
  std::uint32_t cpuType;
  std::uint32_t cpuSubtype;
  std::uint32_t offset;
  std::uint32_t size;
  std::uint32_t alignment;
};

// A slice begins with a header, behind which are the load commands.
constexpr std::uint32_t kMagic = 0xFEEDFACF;

enum FileType : std::uint32_t { kExecutable = 2, kDynamicLibrary = 6 };

constexpr std::uint32_t kPositionIndependent = 0x200000;  // a flag; of executables only

struct Header {
  std::uint32_t magic;
  std::uint32_t cpuType;
  std::uint32_t cpuSubtype;
  std::uint32_t fileType;
  std::uint32_t commandCount;
  std::uint32_t commandsSize;
  std::uint32_t flags;
  std::uint32_t reserved;
};

constexpr std::uint32_t kRequired = 0x80000000;  // a bit in those kinds of commands that a loader must know

enum CommandKind : std::uint32_t {
  kLoadLibrary = 0x0C,
  kDynamicLinker = 0x0E,
  kSegment = 0x19,
  kDyldInfo = 0x22 | kRequired,
  kEntryPoint = 0x28 | kRequired,
};

struct Command {
  std::uint32_t kind;
  std::uint32_t size;
};

// A part of the file that is mapped as a whole. Its sections are behind the command.
struct SegmentCommand : Command {
  char name[16];
  std::uint64_t address;
  std::uint64_t addressSize;
  std::uint64_t offset;
  std::uint64_t contentSize;
  std::int32_t maximumProtection;
  std::int32_t protection;
  std::uint32_t sectionCount;
  std::uint32_t flags;
};

constexpr std::uint32_t kReadOnlyOnceBound = 0x10;  // a segment's flag

enum Protection : std::int32_t { kReadable = 1, kWritable = 2, kRunnable = 4 };

struct Section {
  char name[16];
  char segmentName[16];
  std::uint64_t address;
  std::uint64_t size;
  std::uint32_t offset;
  std::uint32_t alignment;
  std::uint32_t relocationOffset;
  std::uint32_t relocationCount;
  std::uint32_t flags;  // the lowest byte is the type
  std::uint32_t reserved[3];
};

// A library that imports come from, and who loads the executable: a path in `size` bytes of command.
struct PathCommand : Command {
  std::uint32_t pathOffset;
};

// A part of the file, from the beginning of the slice.
struct Range {
  std::uint32_t offset;
  std::uint32_t size;
};

// Where there is what dyld does to the image once it is mapped, and what the image exports.
struct DyldInfoCommand : Command {
  Range rebases;
  Range bindings;
  Range weakBindings;
  Range lazyBindings;
  Range exports;
};

struct EntryPointCommand : Command {
  std::uint64_t offset;
  std::uint64_t stackSize;
};

}  // namespace macho
