// Fuzzes the text functions against slow, plain versions of themselves.
//
// Input: a needle, a NUL byte, a replacement, a NUL byte, a text. The needle is also the set to trim, its first byte
// the delimiter.
#include "text/strings.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using Pieces = std::vector<std::string>;

std::string plainTrim(std::string text, const std::string& characters) {
  const auto isTrimmed = [&](char byte) { return characters.find(byte) != std::string::npos; };
  while (!text.empty() && isTrimmed(text.front())) text.erase(0, 1);
  while (!text.empty() && isTrimmed(text.back())) text.pop_back();
  return text;
}

Pieces plainSplit(const std::string& text, char delimiter, bool keepEmpty) {
  Pieces pieces(1);
  for (const char byte : text) {
    if (byte == delimiter) {
      pieces.emplace_back();
    } else {
      pieces.back() += byte;
    }
  }
  Pieces kept;
  for (const std::string& piece : pieces) {
    const std::string trimmed = plainTrim(piece, "\t ");
    if (keepEmpty || !trimmed.empty()) kept.push_back(trimmed);
  }
  return kept;
}

std::string plainReplace(std::string text, const std::string& needle, const std::string& replacement) {
  std::size_t position = 0;
  while (position + needle.size() <= text.size()) {
    if (text.compare(position, needle.size(), needle) == 0) {
      text.replace(position, needle.size(), replacement);
      position += replacement.size();
    } else {
      ++position;
    }
  }
  return text;
}

void require(bool holds) {
  if (!holds) std::abort();
}

std::string takePiece(std::string& input) {
  const std::size_t end = input.find('\0');
  std::string piece = input.substr(0, end);
  input.erase(0, end == std::string::npos ? end : end + 1);
  return piece;
}

void checkSplit(const std::string& text, char delimiter) {
  for (const bool keepEmpty : {true, false}) {
    Pieces pieces = {"former"};
    reqkit::splitString(text, delimiter, pieces, keepEmpty);
    require(pieces == plainSplit(text, delimiter, keepEmpty));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::string text(reinterpret_cast<const char*>(data), size);
  const std::string needle = takePiece(text);
  const std::string replacement = takePiece(text);
  checkSplit(text, needle.c_str()[0]);
  require(reqkit::trimString(text, needle) == plainTrim(text, needle));
  if (!needle.empty())
    require(reqkit::replaceAll(text, needle, replacement) == plainReplace(text, needle, replacement));
  return 0;
}
