#include <cstdio>
#include <cstdlib>

#include "console.h"
#include "interrupt.h"

namespace quelworks::cli::console {

namespace {

// 128 + the number of SIGINT, as a shell reports a program ended by Ctrl-C.
constexpr int kExitOnSecondInterrupt = 130;

}  // namespace

void endOnSecondInterrupt() {
    std::fputs("\nquelworks: interrupted twice: stopped at once\n", stderr);
    std::_Exit(kExitOnSecondInterrupt);
}

}  // namespace quelworks::cli::console
