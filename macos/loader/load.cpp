// Runs a slice of a macOS executable on Linux, as the kernel and dyld would on a Mac. The slice is a part of this
// program, which Linux has mapped and rebased, and so is LLVM's libunwind for macOS, where it is a part of libSystem:
// nothing of Linux's can stand in for it, since the executable's functions have Apple's compact unwind information.
//
// What is left is done here: imports are bound, segments protected, the entry point is called. What isn't known is
// refused. Nothing allocates memory: allocations are the executable's, so that they can be counted and fail.
#include "load.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "slice.h"

namespace macho {

namespace {

// Returns the address.
std::uint64_t bind(const Import& import) {
  const void* const found = import.address != nullptr ? import.address : findInLibrary(import.library, import.symbol);
  if (found == nullptr) refuse("the import %s of %s isn't known", import.symbol, import.library);
  const std::uint64_t address = reinterpret_cast<std::uint64_t>(found) + static_cast<std::uint64_t>(import.addend);
  std::memcpy(import.pointer, &address, sizeof address);
  return address;
}

void bindAtLaunch() {
  for (const Import* import = kImports; import->pointer != nullptr; ++import) {
    if (import->lazyBinding == -1) bind(*import);
  }
}

void protectSegments() {
  for (const Segment* segment = kSegments; segment->begin != nullptr; ++segment) {
    if (mprotect(segment->begin, segment->size, segment->protection) != 0) refuse("a segment can't be protected");
  }
}

using EntryPoint = int(int argumentCount, char** arguments, char** environment, const char** fromKernel);

}  // namespace

void refuse(const char* format, ...) {
  char text[512];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  dprintf(STDERR_FILENO, "load: %s\n", text);
  _exit(126);
}

bool findUnwindSections(const void* address, UnwindSections* sections) {
  if (address < executable || address >= endOfImages) return false;
  *sections = kUnwindSections[address < libunwind ? 0 : 1];
  return true;
}

}  // namespace macho

// Called by stubBinder for a function that isn't bound yet. Returns its address.
extern "C" std::uint64_t bindCalledFunction(std::int64_t lazyBinding) {
  for (const macho::Import* import = macho::kImports; import->pointer != nullptr; ++import) {
    if (import->lazyBinding == lazyBinding) return macho::bind(*import);
  }
  macho::refuse("there is no lazy binding %ld", lazyBinding);
}

int main(int argumentCount, char** arguments) {
  macho::bindAtLaunch();
  macho::protectSegments();
  const char* fromKernel[] = {arguments[0], nullptr};
  const auto entryPoint = reinterpret_cast<macho::EntryPoint*>(macho::kEntryPoint);
  return entryPoint(argumentCount, arguments, environ, fromKernel);
}
