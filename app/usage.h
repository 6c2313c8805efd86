// The answer to a command line without a request. Nothing here allocates memory.
#pragma once

#include <array>
#include <string_view>

namespace webreq {

using BannerLine = std::array<char, 64>;

// Name, version and date of the tool, name and version of its library, and a line feed, ended by a NUL byte.
BannerLine makeBannerLine() noexcept;

// The usage text's lines, each with its line feed; the first is empty. The lines on CMD, HEADER, AGENT and TIMEOUT
// differ from the tool's behaviour on purpose: callers know the text as it is.
extern const std::array<std::string_view, 11> kUsageLines;

}  // namespace webreq
