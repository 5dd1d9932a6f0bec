#include "support/pty_pair.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace qwtest {

Bytes bytesOf(const std::string& text) {
    return Bytes(text.begin(), text.end());
}

PtyPair::PtyPair() {
    char name[256] = {};
    if (::openpty(&master_, &slave_, name, nullptr, nullptr) != 0)
        throw std::runtime_error("openpty failed");
    path_ = name;
    termios t{};
    ::tcgetattr(slave_, &t);
    ::cfmakeraw(&t);
    ::tcsetattr(slave_, TCSANOW, &t);
    ::fcntl(master_, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave_, F_SETFD, FD_CLOEXEC);
    ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
}

PtyPair::~PtyPair() {
    hangUp();
}

void PtyPair::hangUp() {
    if (master_ >= 0) ::close(master_);
    if (slave_ >= 0) ::close(slave_);
    master_ = slave_ = -1;
}

void PtyPair::write(const Bytes& bytes) {
    std::size_t done = 0;
    while (done < bytes.size() && master_ >= 0) {
        ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
        } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
            pollfd p{master_, POLLOUT, 0};
            ::poll(&p, 1, 100);
        } else {
            return;
        }
    }
}

Bytes PtyPair::read(std::size_t count, std::chrono::milliseconds timeout) {
    Bytes out;
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (out.size() < count && master_ >= 0) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) break;
        pollfd p{master_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
        std::uint8_t buf[4096];
        ssize_t n = ::read(master_, buf, std::min(sizeof buf, count - out.size()));
        if (n > 0) out.insert(out.end(), buf, buf + n);
        if (n < 0 && errno != EAGAIN && errno != EINTR) break;
    }
    return out;
}

Bytes PtyPair::drain(std::chrono::milliseconds quiet) {
    Bytes out;
    for (;;) {
        Bytes more = read(65536, quiet);
        if (more.empty()) return out;
        out.insert(out.end(), more.begin(), more.end());
    }
}

ScriptedPeer::ScriptedPeer(PtyPair& pty) : pty_(pty) {}

ScriptedPeer::~ScriptedPeer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

ScriptedPeer& ScriptedPeer::expect(const Bytes& bytes, std::chrono::milliseconds timeout) {
    steps_.push_back(Step{Step::Expect, bytes, timeout, nullptr, ""});
    return *this;
}

ScriptedPeer& ScriptedPeer::reply(const Bytes& bytes) {
    steps_.push_back(Step{Step::Reply, bytes, std::chrono::milliseconds(0), nullptr, ""});
    return *this;
}

ScriptedPeer& ScriptedPeer::delay(std::chrono::milliseconds pause) {
    steps_.push_back(Step{Step::Delay, {}, pause, nullptr, ""});
    return *this;
}

ScriptedPeer& ScriptedPeer::hangUp() {
    steps_.push_back(Step{Step::HangUp, {}, std::chrono::milliseconds(0), nullptr, ""});
    return *this;
}

ScriptedPeer& ScriptedPeer::call(std::function<bool()> step, const std::string& what) {
    steps_.push_back(Step{Step::Call, {}, std::chrono::milliseconds(0), std::move(step), what});
    return *this;
}

void ScriptedPeer::start() {
    thread_ = std::thread([this] { run(); });
}

bool ScriptedPeer::readSome(std::chrono::milliseconds wait) {
    if (hungUp_) return false;
    pollfd p{pty_.master(), POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(wait.count())) <= 0) return false;
    std::uint8_t buf[4096];
    ssize_t n = ::read(pty_.master(), buf, sizeof buf);
    if (n <= 0) return false;
    std::lock_guard<std::mutex> guard(lock_);
    received_.insert(received_.end(), buf, buf + n);
    return true;
}

static std::string hex(const Bytes& bytes) {
    std::string s;
    char b[4];
    for (std::uint8_t c : bytes) {
        std::snprintf(b, sizeof b, "%02X ", c);
        s += b;
    }
    return s;
}

void ScriptedPeer::run() {
    auto fail = [this](const std::string& message) {
        std::lock_guard<std::mutex> guard(lock_);
        if (error_.empty()) error_ = message;
    };
    for (std::size_t i = 0; i < steps_.size() && !stop_; ++i) {
        Step& step = steps_[i];
        const std::string where = "step " + std::to_string(i) + ": ";
        switch (step.kind) {
            case Step::Expect: {
                auto deadline = std::chrono::steady_clock::now() + step.time;
                for (;;) {
                    {
                        std::lock_guard<std::mutex> guard(lock_);
                        if (received_.size() - consumed_ >= step.bytes.size()) break;
                    }
                    if (stop_ || std::chrono::steady_clock::now() >= deadline) break;
                    readSome(std::chrono::milliseconds(10));
                }
                std::lock_guard<std::mutex> guard(lock_);
                std::size_t have = std::min(received_.size() - consumed_, step.bytes.size());
                Bytes got(received_.begin() + static_cast<std::ptrdiff_t>(consumed_),
                          received_.begin() + static_cast<std::ptrdiff_t>(consumed_ + have));
                consumed_ += have;
                if (got != step.bytes && error_.empty())
                    error_ = where + "expected " + hex(step.bytes) + "got " + hex(got);
                break;
            }
            case Step::Reply:
                pty_.write(step.bytes);
                break;
            case Step::Delay: {
                auto until = std::chrono::steady_clock::now() + step.time;
                while (!stop_ && std::chrono::steady_clock::now() < until)
                    readSome(std::chrono::milliseconds(5));
                break;
            }
            case Step::HangUp:
                pty_.hangUp();
                hungUp_ = true;
                break;
            case Step::Call:
                if (!step.fn()) fail(where + step.what);
                break;
        }
    }
    done_ = true;
    while (!stop_) {
        if (!readSome(std::chrono::milliseconds(10)) && hungUp_)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool ScriptedPeer::finish(std::chrono::milliseconds timeout) {
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!done_ && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const bool completed = done_;
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    std::lock_guard<std::mutex> guard(lock_);
    if (!completed && error_.empty()) error_ = "script did not finish in time";
    return completed && error_.empty();
}

std::string ScriptedPeer::error() const {
    std::lock_guard<std::mutex> guard(lock_);
    return error_;
}

Bytes ScriptedPeer::received() const {
    std::lock_guard<std::mutex> guard(lock_);
    return received_;
}

int openDescriptorCount() {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(dir)) {
            if (e->d_name[0] != '.') ++count;
        }
        ::closedir(dir);
        --count;  // the directory stream itself
    }
    return count;
}

}  // namespace qwtest
