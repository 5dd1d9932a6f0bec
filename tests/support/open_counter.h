// Counts how often a file (a pty's port side) is opened, with inotify (Linux).
#ifndef QUELWORKS_TESTS_SUPPORT_OPEN_COUNTER_H
#define QUELWORKS_TESTS_SUPPORT_OPEN_COUNTER_H

#include <sys/inotify.h>
#include <unistd.h>

#include <string>

namespace qwtest {

// Counts the opens of one file from the moment it is made. Closes are watched too: inotify
// merges an event with an identical one still unread, so opens alone could count one for many.
class OpenCounter {
public:
    explicit OpenCounter(const std::string& path) {
        fd_ = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        watching_ = fd_ >= 0 && ::inotify_add_watch(fd_, path.c_str(), IN_OPEN | IN_CLOSE) >= 0;
    }
    ~OpenCounter() {
        if (fd_ >= 0) ::close(fd_);
    }
    OpenCounter(const OpenCounter&) = delete;
    OpenCounter& operator=(const OpenCounter&) = delete;

    bool watching() const { return watching_; }
    // The opens so far; -1 when the file could not be watched.
    int count() {
        if (!watching_) return -1;
        alignas(inotify_event) char buffer[4096];
        for (ssize_t n; (n = ::read(fd_, buffer, sizeof buffer)) > 0;) {
            for (ssize_t at = 0; at < n;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if (event->mask & IN_OPEN) ++opens_;
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        return opens_;
    }

private:
    int fd_ = -1;
    bool watching_ = false;
    int opens_ = 0;
};

}  // namespace qwtest

#endif  // QUELWORKS_TESTS_SUPPORT_OPEN_COUNTER_H
