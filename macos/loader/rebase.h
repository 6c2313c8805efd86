// Second step: the image's pointers to itself get the slide.
#pragma once

#include "image.h"

namespace macho {

void rebase(const Image& image);

}  // namespace macho
