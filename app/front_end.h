// The command line: finds the request, has it performed and delivers the answer.
#pragma once

namespace webreq {

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
