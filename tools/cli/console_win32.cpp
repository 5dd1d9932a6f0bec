// The console on Windows.
#include <io.h>

#include <csignal>

#include "console.h"
#include "interrupt.h"
#include "platform/windows_include.h"

namespace quelworks::cli {

namespace console {

bool isTerminal(std::FILE* out) {
    return _isatty(_fileno(out)) != 0;
}

int columns(std::FILE* out) {
    CONSOLE_SCREEN_BUFFER_INFO info;
    HANDLE handle = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(out)));
    if (GetConsoleScreenBufferInfo(handle, &info))
        return info.srWindow.Right - info.srWindow.Left + 1;
    return 0;
}

}  // namespace console

// Windows runs a console Ctrl-C handler on a thread of its own, so the handler cannot break a
// read in progress: a flag is enough.
namespace {
std::atomic<bool>* g_requested = nullptr;

extern "C" void onInterrupt(int) {
    if (g_requested->exchange(true)) console::endOnSecondInterrupt();
    std::signal(SIGINT, onInterrupt);
}
}  // namespace

InterruptWatch::InterruptWatch() {
    g_requested = &requested_;
    std::signal(SIGINT, onInterrupt);
}

InterruptWatch::~InterruptWatch() {
    std::signal(SIGINT, SIG_DFL);
    g_requested = nullptr;
}

}  // namespace quelworks::cli
