// The command line: finds the request, has it performed and delivers the answer.
#pragma once

namespace webreq {

// Runs the tool on a process's arguments and returns its exit status.
//
// The argument after the first one that contains "-web" is the request description. Once it is handled, the status is
// 0, whatever the result. Standard output gets the result line (a result of executeWebRequest(); -1 also when there is
// no URL or no memory), and then the body with a line feed after it, unless that goes to the description's output file.
// Without a description: the usage text, and -1, which the caller sees as status 255.
//
// Nothing goes to standard error. Output that can't be written is skipped without a word.
int runCommandLine(int argumentCount, const char* const* arguments) noexcept;

}  // namespace webreq
