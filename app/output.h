// Writes all bytes, in spite of interruptions. Nothing here allocates memory or uses stdio, which needs memory for its
// buffer and loses bytes where a signal or a non-blocking pipe interrupts it.
#pragma once

#include <string>
#include <string_view>

namespace webreq {

// Writes `bytes` to standard output, waiting as long as that takes. Returns false when the rest can't be written.
bool writeToStandardOutput(std::string_view bytes) noexcept;

// Makes the file at `path` hold `bytes`: it is created, readable and writable by everyone, less the umask, or
// truncated. A file that can't be opened or written is skipped: the caller has its result line and learns the rest
// from the file.
void writeOutputFile(const std::string& path, std::string_view bytes) noexcept;

}  // namespace webreq
