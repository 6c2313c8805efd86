// What a command line without a request gets. Nothing here allocates memory.
#pragma once

#include <array>
#include <string_view>

namespace webreq {

using BannerLine = std::array<char, 64>;

// Name, version and date of the tool, name and version of its library, and a line feed, ended by a NUL byte.
BannerLine makeBannerLine() noexcept;

// The usage text's lines, each with its line feed; the first is empty. Its defaults for AGENT and TIMEOUT and its
// words on CMD are what callers have always been told, not what the tool does.
extern const std::array<std::string_view, 11> kUsageLines;

}  // namespace webreq
