// The parts of the command's console that differ by system, one file each: console_posix.cpp and
// console_win32.cpp (chosen by the build). They also hold InterruptWatch's constructor and
// destructor (interrupt.h): how Ctrl-C is caught differs as much.
#ifndef QUELWORKS_TOOLS_CLI_CONSOLE_H
#define QUELWORKS_TOOLS_CLI_CONSOLE_H

#include <cstdio>

namespace quelworks::cli::console {

// True if `out` writes to a terminal.
bool isTerminal(std::FILE* out);
// The width of the terminal `out` writes to; 0 when the system cannot tell.
int columns(std::FILE* out);

// Ends the program at once after a second Ctrl-C (interrupt.cpp).
[[noreturn]] void endOnSecondInterrupt();

}  // namespace quelworks::cli::console

#endif  // QUELWORKS_TOOLS_CLI_CONSOLE_H
