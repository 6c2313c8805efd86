// Runs a slice of a macOS executable on Linux, as the kernel and dyld would on a Mac. The slice is a part of this
// program, and so is LLVM's libunwind for macOS, a part of libSystem there: Linux's doesn't know Apple's compact unwind
// information, which the executable's functions have. Linux has mapped, rebased and bound both.
//
// The rest is done here: segments are protected, the entry point is called, functions are bound lazily. Nothing
// allocates memory: allocations are the executable's, so that they can be counted and fail.
#include "load.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace {

struct Segment {
  std::uint8_t* begin;
  std::size_t size;
  std::int64_t protection;  // once all is bound; macOS and Linux have the same numbers
};

struct LazyBinding {
  const void** pointer;
  const void* function;
  std::int64_t number;  // by which a stub's helper asks for it
};

// Where an image says how its functions are unwound, as libunwind has it.
struct UnwindSections {
  const void* header;
  const void* dwarf;
  std::size_t dwarfSize;
  const void* compact;
  std::size_t compactSize;
};

using EntryPoint = int(int argumentCount, char** arguments, char** environment, const char** fromKernel);

}  // namespace

extern "C" {

// By prepare_slice.py: the executable and, behind it, libunwind, as they are in memory.
extern std::uint8_t executable[], libunwind[], endOfImages[];
extern const Segment kSegments[];          // ends with one that begins at null
extern const LazyBinding kLazyBindings[];  // ends with one whose pointer is null
extern const UnwindSections kUnwindSections[2];
extern EntryPoint* const kEntryPoint;

// libSystem's: sets `sections` to those of the image that holds the address. Returns whether there is one.
bool findUnwindSections(const void* address, UnwindSections* sections) {
  if (address < executable || address >= endOfImages) return false;
  *sections = kUnwindSections[address < libunwind ? 0 : 1];
  return true;
}

// Called by stubBinder for a function that isn't bound yet. Returns its address.
const void* bindCalledFunction(std::int64_t number) {
  for (const LazyBinding* binding = kLazyBindings; binding->pointer != nullptr; ++binding) {
    if (binding->number == number) return *binding->pointer = binding->function;
  }
  refuse("there is no lazy binding %ld", number);
}

}  // extern "C"

void refuse(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  dprintf(STDERR_FILENO, "load: %s\n", text);
  _exit(126);
}

int main(int argumentCount, char** arguments) {
  for (const Segment* segment = kSegments; segment->begin != nullptr; ++segment) {
    const int protection = static_cast<int>(segment->protection);
    if (mprotect(segment->begin, segment->size, protection) != 0) refuse("a segment can't be protected");
  }
  const char* fromKernel[] = {arguments[0], nullptr};
  return kEntryPoint(argumentCount, arguments, environ, fromKernel);
}
