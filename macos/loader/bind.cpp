#include "bind.h"

#include "fixup.h"
#include "refuse.h"
#include "stream.h"

namespace macho {

namespace {

// The upper half of an opcode's byte; the lower half is a small number.
enum Opcode : std::uint8_t {
  kDone = 0x00,
  kSetLibrary = 0x10,
  kSetLibraryNumber = 0x20,
  kSetSymbol = 0x40,
  kSetType = 0x50,
  kSetAddend = 0x60,
  kMoveTo = 0x70,
  kMoveBy = 0x80,
  kBind = 0x90,
  kBindAndMoveBy = 0xA0,
  kBindAndMoveByPointers = 0xB0,
  kBindTimesSkipping = 0xC0,
};

constexpr unsigned kPointerType = 1;
constexpr unsigned kStrongDefinition = 8;  // a weak one's symbol that this image defines: nothing to bind

class Binder {
 public:
  Binder(const Image& image, bool isWeak, FindImport find)
      : image_(image), isWeak_(isWeak), find_(find), place_(image) {}

  // Performs the next opcode and returns what it was.
  Opcode perform(Stream& stream);

  std::uint64_t address() const { return address_; }  // what was bound last

 private:
  void setSymbol(std::uint8_t flags, std::string_view symbol);
  void bindTimes(std::uint64_t times, std::uint64_t skipping = 0);
  std::string_view library() const;

  const Image& image_;
  const bool isWeak_;
  const FindImport find_;
  FixUp place_;
  std::uint64_t library_ = 0;
  std::string_view symbol_;
  std::int64_t addend_ = 0;
  std::uint64_t address_ = 0;
};

Opcode Binder::perform(Stream& stream) {
  const std::uint8_t byte = stream.byte();
  const std::uint8_t small = byte & 0x0FU;
  const auto opcode = static_cast<Opcode>(byte & 0xF0U);
  switch (opcode) {
    case kDone:
      break;
    case kSetLibrary:
      library_ = small;
      break;
    case kSetLibraryNumber:
      library_ = stream.unsignedNumber();
      break;
    case kSetSymbol:
      setSymbol(small, stream.text());
      break;
    case kSetType:
      if (small != kPointerType) refuse("%s: binds something of type %u", image_.path, small);
      break;
    case kSetAddend:
      addend_ = stream.signedNumber();
      break;
    case kMoveTo:
      place_.moveTo(small, stream.unsignedNumber());
      break;
    case kMoveBy:
      place_.moveBy(stream.unsignedNumber());
      break;
    case kBind:
      bindTimes(1);
      break;
    case kBindAndMoveBy:
      bindTimes(1, stream.unsignedNumber());
      break;
    case kBindAndMoveByPointers:
      bindTimes(1, small * sizeof(std::uint64_t));
      break;
    case kBindTimesSkipping: {
      const std::uint64_t times = stream.unsignedNumber();
      bindTimes(times, stream.unsignedNumber());
      break;
    }
    default:
      refuse("%s: has a bind opcode %#x", image_.path, byte);
  }
  return opcode;
}

void Binder::setSymbol(std::uint8_t flags, std::string_view symbol) {
  if (flags != 0 && (!isWeak_ || flags != kStrongDefinition)) {
    refuse("%s: imports %.*s with the flags %#x", image_.path, static_cast<int>(symbol.size()), symbol.data(), flags);
  }
  symbol_ = symbol;
}

void Binder::bindTimes(std::uint64_t times, std::uint64_t skipping) {
  const auto found = reinterpret_cast<std::uint64_t>(find_(library(), symbol_));
  address_ = found + static_cast<std::uint64_t>(addend_);
  for (std::uint64_t i = 0; i < times; ++i) {
    place_.pointer() = address_;
    place_.moveBy(sizeof(std::uint64_t) + skipping);
  }
}

// Libraries are counted from 1 in the order of their load commands.
std::string_view Binder::library() const {
  if (isWeak_) return {};
  if (library_ == 0 || library_ > image_.libraryCount) refuse("%s: loads no library %lu", image_.path, library_);
  return image_.libraries[library_ - 1];
}

void bindUpToDone(const Image& image, Range bindings, bool isWeak, FindImport find) {
  Stream stream(image, bindings);
  Binder binder(image, isWeak, find);
  while (!stream.atEnd() && binder.perform(stream) != kDone) {
  }
}

// Each function's opcodes end with kDone, and are followed by the next one's.
void bindFunctions(const Image& image, FindImport find) {
  Stream stream(image, image.info->lazyBindings);
  Binder binder(image, false, find);
  while (!stream.atEnd()) binder.perform(stream);
}

}  // namespace

void bind(const Image& image, FunctionsAreBound when, FindImport find) {
  bindUpToDone(image, image.info->bindings, false, find);
  bindUpToDone(image, image.info->weakBindings, true, find);
  if (when == FunctionsAreBound::kAtLaunch) bindFunctions(image, find);
}

std::uint64_t bindFunction(const Image& image, std::uint64_t offset, FindImport find) {
  Stream stream(image, image.info->lazyBindings, offset);
  Binder binder(image, false, find);
  while (binder.perform(stream) != kDone) {
  }
  return binder.address();
}

}  // namespace macho
