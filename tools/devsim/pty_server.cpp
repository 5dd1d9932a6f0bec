#include "pty_server.h"

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#ifdef __linux__
#include <sys/prctl.h>
#endif
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace quelworks::devsim {

namespace {

// Should the master side report a hang-up (the port side closed), the server looks again after
// this long instead of spinning.
constexpr auto kIdleWithoutHost = std::chrono::milliseconds(2);
// Longest sleep when nothing is scheduled (only bounds how stale the loop may get).
constexpr auto kIdleWait = std::chrono::milliseconds(200);

timespec toTimespec(Clock::duration d) {
    if (d < Clock::duration::zero()) d = Clock::duration::zero();
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(d).count();
    timespec ts;
    ts.tv_sec = static_cast<time_t>(ns / 1'000'000'000);
    ts.tv_nsec = static_cast<long>(ns % 1'000'000'000);
    return ts;
}

}  // namespace

PtyServer::PtyServer(DeviceConfig config, std::string imageOut)
    : device_(std::move(config)), imageOut_(std::move(imageOut)) {}

PtyServer::~PtyServer() {
    stop();
    if (slave_ >= 0) ::close(slave_);
    if (master_ >= 0) ::close(master_);
    for (int fd : wake_) {
        if (fd >= 0) ::close(fd);
    }
}

bool PtyServer::open(std::string* error) {
    auto fail = [&](const char* what) {
        if (error) *error = std::string(what) + ": " + std::strerror(errno);
        return false;
    };
    if (::pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) return fail("cannot create a pipe");
    master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (master_ < 0) return fail("cannot open a pseudo-terminal");
    if (::grantpt(master_) != 0 || ::unlockpt(master_) != 0) return fail("cannot unlock the pty");
    char name[128];
    if (::ptsname_r(master_, name, sizeof name) != 0) return fail("cannot name the pty");
    path_ = name;
    ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);

    // Hold the port side open ourselves: otherwise the master reports a hang-up whenever no host
    // has the port open. Raw line settings until the host sets its own: no echo, no line
    // editing, no CR/LF mapping.
    slave_ = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (slave_ < 0) return fail("cannot open the pty's port side");
    termios tio;
    if (::tcgetattr(slave_, &tio) == 0) {
        ::cfmakeraw(&tio);
        ::tcsetattr(slave_, TCSANOW, &tio);
    }
    return true;
}

void PtyServer::setTrace(std::function<void(const std::string&)> trace) {
    std::lock_guard<std::mutex> lock(mutex_);
    device_.setTrace(std::move(trace));
}

std::string PtyServer::problems() {
    std::lock_guard<std::mutex> lock(mutex_);
    return problems_;
}

void PtyServer::note(const std::string& problem) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!problems_.empty()) problems_ += '\n';
    problems_ += problem;
}

void PtyServer::requestStop() noexcept {
    if (wake_[1] >= 0) {
        char byte = 1;
        ssize_t ignored = ::write(wake_[1], &byte, 1);
        (void)ignored;
    }
}

void PtyServer::start() {
    thread_ = std::thread([this] { run(); });
}

void PtyServer::stop() {
    if (thread_.joinable()) {
        requestStop();
        thread_.join();
    }
}

void PtyServer::writeOut(const std::vector<std::uint8_t>& bytes) {
    std::size_t done = 0;
    int stalls = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno == EAGAIN && ++stalls < 20) {
            pollfd p{master_, POLLOUT, 0};
            ::poll(&p, 1, 50);
            continue;
        }
        note("dropped " + std::to_string(bytes.size() - done) +
             " reply bytes: the host does not read");
        return;
    }
}

void PtyServer::saveImage(const std::vector<std::uint8_t>& image) {
    std::string part = imageOut_ + ".part";
    std::FILE* f = std::fopen(part.c_str(), "wb");
    bool ok = f != nullptr;
    if (ok && !image.empty()) ok = std::fwrite(image.data(), 1, image.size(), f) == image.size();
    if (f && std::fclose(f) != 0) ok = false;
    if (ok) ok = std::rename(part.c_str(), imageOut_.c_str()) == 0;
    if (!ok) note("cannot write the image to '" + imageOut_ + "': " + std::strerror(errno));
}

void PtyServer::run() {
#ifdef __linux__
    // Wake up when a reply byte is due, not up to 50 us later: at 115200 baud a byte takes 87 us.
    ::prctl(PR_SET_TIMERSLACK, 1UL, 0UL, 0UL, 0UL);
#endif
    bool hostAway = false;
    std::uint8_t buffer[4096];
    for (;;) {
        std::vector<std::uint8_t> out;
        std::vector<std::uint8_t> image;
        bool newImage = false;
        std::optional<Clock::time_point> next;
        Clock::time_point now;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            now = Clock::now();
            out = device_.transmit(now);
            next = device_.nextEvent();
            if (device_.imagesWritten() != imagesSaved_) {
                imagesSaved_ = device_.imagesWritten();
                image = device_.image();
                newImage = true;
            }
        }
        if (!out.empty()) writeOut(out);
        if (newImage && !imageOut_.empty()) saveImage(image);

        Clock::duration wait = next ? *next - now : Clock::duration(kIdleWait);
        if (hostAway) wait = std::min<Clock::duration>(wait, kIdleWithoutHost);
        pollfd fds[2] = {{wake_[0], POLLIN, 0}, {master_, POLLIN, 0}};
        timespec ts = toTimespec(wait);
        // With no host on the port the master only reports hang-ups: wait on the stop pipe alone.
        int ready = ::ppoll(fds, hostAway ? 1 : 2, &ts, nullptr);
        if (ready < 0) {
            if (errno == EINTR) continue;
            note(std::string("poll failed: ") + std::strerror(errno));
            return;
        }
        if (fds[0].revents & POLLIN) return;
        if (hostAway) {
            hostAway = false;  // look again on the next round
            continue;
        }
        if (fds[1].revents & POLLIN) {
            ssize_t n = ::read(master_, buffer, sizeof buffer);
            if (n > 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                device_.receive(buffer, static_cast<std::size_t>(n), Clock::now());
                continue;
            }
            if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
            hostAway = true;  // EIO: the port side is closed
        } else if (fds[1].revents & (POLLHUP | POLLERR)) {
            hostAway = true;
        }
    }
}

}  // namespace quelworks::devsim
