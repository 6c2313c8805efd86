// Bytes of every value.
#pragma once

#include <string>

namespace test_support {

constexpr int kByteValues = 256;

// The bytes from `first` up to, not including, `end`, in ascending order.
inline std::string byteRange(int first, int end) {
  std::string bytes;
  for (int byte = first; byte < end; ++byte) bytes += static_cast<char>(byte);
  return bytes;
}

inline std::string allBytes() { return byteRange(0, kByteValues); }

}  // namespace test_support
