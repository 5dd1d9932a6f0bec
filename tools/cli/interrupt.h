// Ctrl-C as a request, not a kill: while an InterruptWatch lives, the first Ctrl-C only sets a
// flag the program checks at a safe point; a second one ends the program at once.
#ifndef QUELWORKS_TOOLS_CLI_INTERRUPT_H
#define QUELWORKS_TOOLS_CLI_INTERRUPT_H

#include <atomic>
#include <thread>

namespace quelworks::cli {

class InterruptWatch {
public:
    InterruptWatch();
    ~InterruptWatch();
    InterruptWatch(const InterruptWatch&) = delete;
    InterruptWatch& operator=(const InterruptWatch&) = delete;

    bool requested() const { return requested_.load(); }

private:
    std::atomic<bool> requested_{false};
    std::atomic<bool> done_{false};
    std::thread watcher_;
};

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_INTERRUPT_H
