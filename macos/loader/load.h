#pragma once

// Ends the process with status 126, and a line on standard error: "load: " and the text.
[[noreturn]] [[gnu::format(printf, 1, 2)]] void refuse(const char* format, ...);
