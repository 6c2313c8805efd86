#include "images.h"

#include <array>
#include <cstdint>

#include "bind.h"
#include "exports.h"
#include "imports.h"
#include "refuse.h"

namespace macho {

namespace {

std::array<Image, 2> images;
std::size_t imageCount = 0;

const Image* findImage(const void* address) {
  for (std::size_t i = 0; i < imageCount; ++i) {
    if (contains(images[i], address)) return &images[i];
  }
  return nullptr;
}

const void* findInImages(std::string_view symbol) {
  for (std::size_t i = 0; i < imageCount; ++i) {
    if (const void* const address = findExport(images[i], symbol)) return address;
  }
  return nullptr;
}

const void* find(std::string_view library, std::string_view symbol) {
  if (library.empty()) return findInImages(symbol);
  if (const void* const address = findInLibrary(library, symbol)) return address;
  return library == "/usr/lib/libSystem.B.dylib" ? findExport(images[imageCount - 1], symbol) : nullptr;
}

void locate(const Image& image, std::string_view name, const void*& address, std::size_t& size) {
  const Section* const section = findSection(image, "__TEXT", name);
  address = section == nullptr ? nullptr : addressInMemory(image, section->address);
  size = section == nullptr ? 0 : section->size;
}

}  // namespace

const Image& addImage(const Image& image) { return images.at(imageCount++) = image; }

const void* findImport(std::string_view library, std::string_view symbol) {
  const void* const address = find(library, symbol);
  if (address == nullptr) {
    refuse("the import %.*s of %.*s isn't known", static_cast<int>(symbol.size()), symbol.data(),
           static_cast<int>(library.size()), library.data());
  }
  return address;
}

bool findUnwindSections(const void* address, UnwindSections* sections) {
  const Image* const image = findImage(address);
  if (image == nullptr) return false;
  sections->header = image->text;
  locate(*image, "__eh_frame", sections->dwarf, sections->dwarfSize);
  locate(*image, "__unwind_info", sections->compact, sections->compactSize);
  return true;
}

}  // namespace macho

// Called by stubBinder with an address of the image whose function it is, and returns the function's.
extern "C" std::uint64_t bindCalledFunction(const void* address, std::uint64_t lazyBinding) {
  const macho::Image* const image = macho::findImage(address);
  if (image == nullptr) macho::refuse("a function is called out of no image");
  return macho::bindFunction(*image, lazyBinding, macho::findImport);
}
