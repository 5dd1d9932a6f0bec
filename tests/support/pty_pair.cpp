#include "support/pty_pair.h"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace qwtest {

using Clock = std::chrono::steady_clock;

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
    const auto deadline = Clock::now() + timeout;
    while (out.size() < count && master_ >= 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
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

namespace {

std::string hex(const Bytes& bytes) {
    std::string s;
    char b[4];
    for (std::uint8_t c : bytes) {
        std::snprintf(b, sizeof b, "%02X ", c);
        s += b;
    }
    return s;
}

}  // namespace

ScriptedPeer::~ScriptedPeer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

ScriptedPeer& ScriptedPeer::expect(const Bytes& bytes, std::chrono::milliseconds timeout) {
    steps_.push_back([this, bytes, timeout] {
        const auto deadline = Clock::now() + timeout;
        while (received_.size() < bytes.size() && !stop_ && Clock::now() < deadline)
            readSome(std::chrono::milliseconds(10));
        const auto end = received_.begin() +
                         static_cast<std::ptrdiff_t>(std::min(received_.size(), bytes.size()));
        const Bytes got(received_.begin(), end);
        received_.erase(received_.begin(), end);
        if (got != bytes) fail("expected " + hex(bytes) + "got " + hex(got));
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::reply(const Bytes& bytes) {
    steps_.push_back([this, bytes] { pty_.write(bytes); });
    return *this;
}

ScriptedPeer& ScriptedPeer::delay(std::chrono::milliseconds pause) {
    steps_.push_back([this, pause] {
        for (const auto until = Clock::now() + pause; !stop_ && Clock::now() < until;)
            readSome(std::chrono::milliseconds(5));
    });
    return *this;
}

ScriptedPeer& ScriptedPeer::hangUp() {
    steps_.push_back([this] {
        pty_.hangUp();
        hungUp_ = true;
    });
    return *this;
}

void ScriptedPeer::start() {
    thread_ = std::thread([this] {
        for (step_ = 0; step_ < steps_.size() && !stop_; ++step_) steps_[step_]();
        done_ = true;
        while (!stop_) {  // keep the line drained until finish()
            if (hungUp_) std::this_thread::sleep_for(std::chrono::milliseconds(10));
            readSome(std::chrono::milliseconds(10));
        }
    });
}

void ScriptedPeer::readSome(std::chrono::milliseconds wait) {
    pollfd p{pty_.master(), POLLIN, 0};
    if (hungUp_ || ::poll(&p, 1, static_cast<int>(wait.count())) <= 0) return;
    std::uint8_t buf[4096];
    ssize_t n = ::read(pty_.master(), buf, sizeof buf);
    if (n > 0) received_.insert(received_.end(), buf, buf + n);
}

void ScriptedPeer::fail(const std::string& message) {
    std::lock_guard<std::mutex> guard(lock_);
    if (error_.empty()) error_ = "step " + std::to_string(step_) + ": " + message;
}

bool ScriptedPeer::finish(std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!done_ && Clock::now() < deadline)
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

int openDescriptorCount() {
    int count = -1;  // the directory stream itself
    if (DIR* dir = ::opendir("/proc/self/fd")) {
        while (dirent* e = ::readdir(dir)) count += e->d_name[0] != '.';
        ::closedir(dir);
    }
    return count;
}

}  // namespace qwtest
