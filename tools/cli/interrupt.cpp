#include "interrupt.h"

#include <cstdio>
#include <cstdlib>

#ifdef _WIN32
#include <csignal>
#else
#include <pthread.h>
#include <signal.h>
#endif

namespace quelworks::cli {

namespace {

// 128 + the number of SIGINT, as a shell reports a program ended by Ctrl-C.
constexpr int kExitOnSecondInterrupt = 130;

void endAtOnce() {
    std::fputs("\nquelworks: interrupted twice: stopped at once\n", stderr);
    std::_Exit(kExitOnSecondInterrupt);
}

}  // namespace

#ifdef _WIN32

// Windows runs a console Ctrl-C handler on a thread of its own, so the handler cannot break a
// read in progress: a flag is enough.
namespace {
std::atomic<bool>* g_requested = nullptr;

extern "C" void onInterrupt(int) {
    if (g_requested->exchange(true)) endAtOnce();
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

#else

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
            if (requested_.exchange(true)) endAtOnce();
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

#endif

}  // namespace quelworks::cli
