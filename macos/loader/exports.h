// What an image exports.
#pragma once

#include <string_view>

#include "image.h"

namespace macho {

// The address of the symbol, or null if the image doesn't export it.
const void* findExport(const Image& image, std::string_view symbol);

}  // namespace macho
