#include "exports.h"

#include "refuse.h"
#include "stream.h"

namespace macho {

namespace {

constexpr std::uint64_t kWeakDefinition = 4;  // the one flag that changes nothing here

// What is behind the last byte of a symbol: its address from the beginning of the image on.
const void* readAddress(const Image& image, Stream& node) {
  const std::uint64_t flags = node.unsignedNumber();
  if ((flags & ~kWeakDefinition) != 0) refuse("%s: exports something with the flags %#lx", image.path, flags);
  return image.text + node.unsignedNumber();
}

// The next node's position is behind the label that `symbol` goes on with, which is taken off; 0 if there is none.
std::uint64_t findChild(Stream& node, std::string_view& symbol) {
  for (unsigned count = node.byte(); count > 0; --count) {
    const std::string_view label = node.text();
    const std::uint64_t position = node.unsignedNumber();
    if (symbol.substr(0, label.size()) != label) continue;
    symbol.remove_prefix(label.size());
    return position;
  }
  return 0;
}

}  // namespace

// A tree whose branches are labelled with parts of symbols. A node: the size of what it says of the symbol that ends
// here, then that, then how many branches there are, and each one's label and position.
const void* findExport(const Image& image, std::string_view symbol) {
  const Range tree = image.info->exports;
  if (tree.size == 0) return nullptr;
  std::uint64_t position = 0;
  do {
    Stream node(image, tree, position);
    const std::uint64_t size = node.unsignedNumber();
    if (symbol.empty()) return size == 0 ? nullptr : readAddress(image, node);
    for (std::uint64_t i = 0; i < size; ++i) node.byte();
    position = findChild(node, symbol);
  } while (position != 0);
  return nullptr;
}

}  // namespace macho
