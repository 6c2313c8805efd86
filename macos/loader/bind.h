// Third step: the image's pointers to what it imports get the addresses of that.
#pragma once

#include <cstdint>

#include "image.h"

namespace macho {

// Finds what an image imports: `library` is the path that it loads it from, empty for a weak definition, of which the
// first one among all images counts.
using FindImport = const void* (*)(std::string_view library, std::string_view symbol);

// Functions are bound before the first instruction runs, or each when it is first called. dyld binds lazily up to
// macOS 11.
enum class FunctionsAreBound { kAtLaunch, kWhenCalled };

void bind(const Image& image, FunctionsAreBound when, FindImport find);

// Binds the function whose lazy binding is at `offset` of the image's and returns its address.
std::uint64_t bindFunction(const Image& image, std::uint64_t offset, FindImport find);

}  // namespace macho
