// Runs a macOS executable's machine code on Linux, as the kernel and dyld would on a Mac:
//
//     load lazily|eagerly LIBUNWIND EXECUTABLE NAME [ARGUMENT ...]
//
// maps the slice for this machine's architecture, rebases it, binds its imports and calls its entry point with NAME and
// the arguments. LIBUNWIND is LLVM's libunwind, built for macOS, where it is a part of libSystem. Nothing on Linux can
// stand in for it: the executable's functions have Apple's compact unwind information. Functions are bound when they
// are first called, or all at once before. What the loader doesn't know it refuses with one line on standard error and
// status 126.
//
// Nothing here allocates memory: allocations are the executable's, so that they can be counted and fail.
#include <unistd.h>

#include <string_view>

#include "bind.h"
#include "image.h"
#include "images.h"
#include "rebase.h"
#include "refuse.h"

namespace macho {

namespace {

FunctionsAreBound whenFunctionsAreBound(std::string_view word) {
  if (word == "lazily") return FunctionsAreBound::kWhenCalled;
  if (word == "eagerly") return FunctionsAreBound::kAtLaunch;
  refuse("functions are bound lazily or eagerly, not %.*s", static_cast<int>(word.size()), word.data());
}

using EntryPoint = int(int argumentCount, char** arguments, char** environment, const char** fromKernel);

int run(const Image& image, int argumentCount, char** arguments) {
  const char* fromKernel[] = {image.path, nullptr};
  auto* const entryPoint = reinterpret_cast<EntryPoint*>(image.text + image.entryPoint->offset);
  return entryPoint(argumentCount, arguments, environ, fromKernel);
}

}  // namespace

}  // namespace macho

int main(int argumentCount, char** arguments) {
  using namespace macho;
  if (argumentCount < 5) refuse("usage: load lazily|eagerly LIBUNWIND EXECUTABLE NAME [ARGUMENT ...]");
  const FunctionsAreBound when = whenFunctionsAreBound(arguments[1]);
  const Image& executable = addImage(mapImage(arguments[3], kExecutable));
  const Image& unwinder = addImage(mapImage(arguments[2], kDynamicLibrary));
  for (const Image* const image : {&unwinder, &executable}) {
    rebase(*image);
    bind(*image, when, findImport);
    protectConstants(*image);
  }
  return run(executable, argumentCount - 4, arguments + 4);
}
