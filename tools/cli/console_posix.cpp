// The console on POSIX systems.
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "console.h"
#include "interrupt.h"

namespace quelworks::cli {

namespace console {

bool isTerminal(std::FILE* out) {
    return ::isatty(fileno(out)) != 0;
}

int columns(std::FILE* out) {
    winsize size{};
    if (::ioctl(fileno(out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) return size.ws_col;
    return 0;
}

}  // namespace console

// A signal handler would break the serial reads in progress (poll and select are never
// restarted), so SIGINT is blocked here and taken by a thread of its own with sigwait.
InterruptWatch::InterruptWatch() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    watcher_ = std::thread([this, set] {
        for (;;) {
            int signal = 0;
            if (sigwait(&set, &signal) != 0) continue;
            if (done_.load()) return;
            if (requested_.exchange(true)) console::endOnSecondInterrupt();
        }
    });
}

InterruptWatch::~InterruptWatch() {
    done_.store(true);
    pthread_kill(watcher_.native_handle(), SIGINT);
    watcher_.join();
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace quelworks::cli
