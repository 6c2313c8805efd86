// Readies the process for a run.
#pragma once

namespace webreq {

// Call this before anything else in the process. Opens /dev/null on those of descriptors 0 to 2 that the caller left
// closed, so that no socket and no output file is ever taken for standard output. Ignores SIGPIPE and SIGXFSZ, so that
// neither a reader that went away nor a limit on the size of files ends the process.
void prepareProcess() noexcept;

}  // namespace webreq
