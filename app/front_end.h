// The command line: finds the request, has it performed and delivers the answer.
#pragma once

namespace webreq {

// Call this before anything else in the process. Opens /dev/null on those of descriptors 0 to 2 that the caller left
// closed, so that no socket and no output file is ever taken for standard output, and has SIGPIPE and SIGXFSZ ignored,
// so that neither a reader that went away nor a limit on the size of files ends the process.
void prepareProcess();

// Runs the tool on a process's arguments and returns its exit status.
//
// The argument after the first one that contains "-web" is the request description. It is handled, whatever comes
// of it, with status 0: one result line on standard output (a result of executeWebRequest(); -1 also when there is no
// URL or no memory), then the body, either in the description's output file or on standard output with a line feed
// after it. Without a description: the usage text, and -1, which the caller sees as status 255.
//
// Nothing goes to standard error. Output that can't be written is skipped without a word.
int runCommandLine(int argumentCount, const char* const* arguments) noexcept;

}  // namespace webreq
