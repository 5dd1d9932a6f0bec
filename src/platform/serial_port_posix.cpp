// The serial port on Linux: termios2 in raw mode, the Win32 time-out rules emulated with poll().
//
// Handles are never-reused numbers mapped to descriptors inside this file, so a stale handle
// (closed already, or kept by a member-wise copy) can never reach a descriptor that the process
// has since opened for something else: every call through it simply fails.
#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <unistd.h>

// termios2 (any baud rate) comes from the kernel headers; <termios.h> must stay out of this file.
#include <asm/termbits.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "platform/port_name.h"
#include "platform/serial_port.h"

namespace quelworks::detail {
namespace {

using Clock = std::chrono::steady_clock;

struct OpenPort {
    int fd = -1;
    int wakeRead = -1;  // becomes readable when the port is interrupted or closed
    int wakeWrite = -1;
    std::mutex lock;  // guards the two blocks below
    DeviceControlBlock settings{};
    CommTimeouts timeouts{};

    OpenPort() = default;
    OpenPort(const OpenPort&) = delete;
    OpenPort& operator=(const OpenPort&) = delete;
    ~OpenPort() {
        if (fd >= 0) {
            ::ioctl(fd, TIOCNXCL);  // the exclusive flag outlives the descriptor on some ttys
            ::flock(fd, LOCK_UN);
            ::close(fd);
        }
        if (wakeRead >= 0) ::close(wakeRead);
        if (wakeWrite >= 0) ::close(wakeWrite);
    }
};

struct PortTable {
    std::mutex lock;
    std::unordered_map<std::uintptr_t, std::shared_ptr<OpenPort>> ports;
    std::uintptr_t nextId = 1;
};

PortTable& table() {
    static PortTable* t = new PortTable;  // never destroyed: ports may be closed during exit
    return *t;
}

std::shared_ptr<OpenPort> find(PortHandle handle) {
    PortTable& t = table();
    std::lock_guard<std::mutex> guard(t.lock);
    auto it = t.ports.find(reinterpret_cast<std::uintptr_t>(handle));
    return it == t.ports.end() ? nullptr : it->second;
}

void wake(const OpenPort& port) {
    const char b = 1;
    ssize_t n = ::write(port.wakeWrite, &b, 1);
    (void)n;  // a full pipe is already awake
}

// "//./COM3" names the device COM3; on this system a name without '/' is a node in /dev and a
// name with '/' is a path.
std::string devicePathFor(const char* path) {
    return quelworks::ResolvePortPath(path);
}

std::uint32_t speedOf(const termios2& t) {
    return t.c_ospeed;
}

void describe(const termios2& t, DeviceControlBlock* dcb) {
    dcb->DCBlength = sizeof(DeviceControlBlock);
    dcb->BaudRate = speedOf(t);
    switch (t.c_cflag & CSIZE) {
        case CS5:
            dcb->ByteSize = 5;
            break;
        case CS6:
            dcb->ByteSize = 6;
            break;
        case CS7:
            dcb->ByteSize = 7;
            break;
        default:
            dcb->ByteSize = 8;
            break;
    }
    if (!(t.c_cflag & PARENB)) {
        dcb->Parity = 0;
    } else if (t.c_cflag & CMSPAR) {
        dcb->Parity = (t.c_cflag & PARODD) ? 3 : 4;
    } else {
        dcb->Parity = (t.c_cflag & PARODD) ? 1 : 2;
    }
    dcb->StopBits = (t.c_cflag & CSTOPB) ? (dcb->ByteSize == 5 ? 1 : 2) : 0;
    dcb->fBinary = 1;
    dcb->fParity = (t.c_iflag & INPCK) ? 1 : 0;
    dcb->fOutX = (t.c_iflag & IXON) ? 1 : 0;
    dcb->fInX = (t.c_iflag & IXOFF) ? 1 : 0;
    dcb->fOutxCtsFlow = (t.c_cflag & CRTSCTS) ? 1 : 0;
    dcb->XonChar = static_cast<char>(t.c_cc[VSTART]);
    dcb->XoffChar = static_cast<char>(t.c_cc[VSTOP]);
}

bool validSettings(const DeviceControlBlock& d) {
    if (d.BaudRate == 0) return false;
    if (d.ByteSize < 5 || d.ByteSize > 8) return false;
    if (d.Parity > 4 || d.StopBits > 2) return false;
    if (d.StopBits == 1 && d.ByteSize != 5) return false;  // 1.5 stop bits exist only with 5 bits
    if (d.StopBits == 2 && d.ByteSize == 5) return false;
    if ((d.fOutX || d.fInX) && d.XonChar == d.XoffChar) return false;
    return true;
}

// The classic speed code of a standard rate, so that programs that only know termios read the
// rate back; BOTHER (the rate in c_ospeed) for everything else.
tcflag_t speedCode(std::uint32_t rate) {
    static const struct {
        std::uint32_t rate;
        tcflag_t code;
    } codes[] = {{50, B50},         {75, B75},         {110, B110},        {134, B134},
                 {150, B150},       {200, B200},       {300, B300},        {600, B600},
                 {1200, B1200},     {1800, B1800},     {2400, B2400},      {4800, B4800},
                 {9600, B9600},     {19200, B19200},   {38400, B38400},    {57600, B57600},
                 {115200, B115200}, {230400, B230400}, {460800, B460800},  {500000, B500000},
                 {576000, B576000}, {921600, B921600}, {1000000, B1000000}};
    for (const auto& c : codes) {
        if (c.rate == rate) return c.code;
    }
    return BOTHER;
}

void setModemLine(int fd, int line, bool on) {
    // A pty has no modem lines: the call fails there, which is fine.
    ::ioctl(fd, on ? TIOCMBIS : TIOCMBIC, &line);
}

// Time-outs beyond this (about 35 years) are treated as this, so that clock arithmetic never
// overflows.
constexpr std::uint64_t kLongestWaitMs = std::uint64_t{1} << 40;

std::chrono::milliseconds clampedMs(std::uint64_t ms) {
    return std::chrono::milliseconds(
        static_cast<long long>(ms < kLongestWaitMs ? ms : kLongestWaitMs));
}

// Milliseconds left until `deadline`, rounded up, at least 0.
int millisecondsUntil(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now());
    if (left.count() <= 0) return 0;
    long long ms = (left.count() + 999) / 1000;
    return ms > 0x7FFFFFFF ? 0x7FFFFFFF : static_cast<int>(ms);
}

}  // namespace

PortHandle openPort(const char* devicePath) {
    if (devicePath == nullptr) return invalidPortHandle();
    std::string path = devicePathFor(devicePath);
    if (path.empty()) return invalidPortHandle();

    auto port = std::make_shared<OpenPort>();
    port->fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (port->fd < 0) return invalidPortHandle();
    termios2 t{};
    if (!::isatty(port->fd) || ::ioctl(port->fd, TCGETS2, &t) != 0) return invalidPortHandle();
    // No sharing: the exclusive flag keeps other (unprivileged) openers out, the lock keeps out
    // everyone who asks for it, root and this process included.
    if (::flock(port->fd, LOCK_EX | LOCK_NB) != 0) {
        int fd = port->fd;
        port->fd = -1;  // not ours to unlock or un-exclude
        ::close(fd);
        return invalidPortHandle();
    }
    ::ioctl(port->fd, TIOCEXCL);
    int wake[2];
    if (::pipe2(wake, O_CLOEXEC | O_NONBLOCK) != 0) return invalidPortHandle();
    port->wakeRead = wake[0];
    port->wakeWrite = wake[1];

    // What a freshly opened port reports before anyone configures it.
    DeviceControlBlock& d = port->settings;
    d.XonLim = 2048;
    d.XoffLim = 512;
    d.fDtrControl = 1;
    d.fRtsControl = 1;
    describe(t, &d);

    PortTable& tbl = table();
    std::lock_guard<std::mutex> guard(tbl.lock);
    std::uintptr_t id = tbl.nextId++;
    tbl.ports.emplace(id, std::move(port));
    return reinterpret_cast<PortHandle>(id);
}

bool closePort(PortHandle handle) {
    std::shared_ptr<OpenPort> port;
    {
        PortTable& t = table();
        std::lock_guard<std::mutex> guard(t.lock);
        auto it = t.ports.find(reinterpret_cast<std::uintptr_t>(handle));
        if (it == t.ports.end()) return false;
        port = std::move(it->second);
        t.ports.erase(it);
    }
    // A read or write still running on another thread ends now; the descriptor is closed when
    // the last user lets go of it.
    wake(*port);
    return true;
}

void interruptPort(PortHandle handle) {
    if (auto port = find(handle)) wake(*port);
}

bool getCommState(PortHandle handle, DeviceControlBlock* settings) {
    auto port = find(handle);
    if (!port || settings == nullptr) return false;
    termios2 t{};
    if (::ioctl(port->fd, TCGETS2, &t) != 0) return false;
    std::lock_guard<std::mutex> guard(port->lock);
    DeviceControlBlock d = port->settings;
    describe(t, &d);
    *settings = d;
    return true;
}

bool setCommState(PortHandle handle, const DeviceControlBlock* settings) {
    auto port = find(handle);
    if (!port || settings == nullptr || !validSettings(*settings)) return false;
    const DeviceControlBlock& d = *settings;
    termios2 old{};
    if (::ioctl(port->fd, TCGETS2, &old) != 0) return false;

    termios2 t = old;
    t.c_iflag &= ~static_cast<tcflag_t>(IGNBRK | BRKINT | PARMRK | ISTRIP | INLCR | IGNCR | ICRNL |
                                        IXON | IXOFF | IXANY | INPCK | IUCLC | IMAXBEL);
    if (d.fParity) t.c_iflag |= INPCK;
    if (d.fOutX) t.c_iflag |= IXON;
    if (d.fInX) t.c_iflag |= IXOFF;
    t.c_oflag &= ~static_cast<tcflag_t>(OPOST);
    t.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHONL | ICANON | ISIG | IEXTEN);
    t.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB | CRTSCTS |
                                        CBAUD | (CBAUD << IBSHIFT));
    static const tcflag_t sizes[] = {CS5, CS6, CS7, CS8};
    const tcflag_t speed = speedCode(d.BaudRate);
    t.c_cflag |= sizes[d.ByteSize - 5] | CREAD | CLOCAL | speed | (speed << IBSHIFT);
    switch (d.Parity) {
        case 1:
            t.c_cflag |= PARENB | PARODD;
            break;
        case 2:
            t.c_cflag |= PARENB;
            break;
        case 3:
            t.c_cflag |= PARENB | CMSPAR | PARODD;
            break;
        case 4:
            t.c_cflag |= PARENB | CMSPAR;
            break;
        default:
            break;
    }
    if (d.StopBits != 0) t.c_cflag |= CSTOPB;
    if (d.fOutxCtsFlow || d.fRtsControl == 2) t.c_cflag |= CRTSCTS;
    t.c_ispeed = d.BaudRate;
    t.c_ospeed = d.BaudRate;
    t.c_cc[VSTART] = static_cast<cc_t>(d.XonChar);
    t.c_cc[VSTOP] = static_cast<cc_t>(d.XoffChar);
    t.c_cc[VMIN] = 0;  // reads never block in the driver: poll() does the waiting
    t.c_cc[VTIME] = 0;
    if (::ioctl(port->fd, TCSETS2, &t) != 0) return false;

    // The driver picks the nearest rate it can make; a rate it cannot come close to is rejected,
    // and the port keeps its old settings.
    termios2 now{};
    if (::ioctl(port->fd, TCGETS2, &now) != 0) return false;
    double wanted = d.BaudRate;
    double got = now.c_ospeed;
    if (got < wanted * 0.97 || got > wanted * 1.03) {
        ::ioctl(port->fd, TCSETS2, &old);
        return false;
    }
    if (d.fDtrControl != 2) setModemLine(port->fd, TIOCM_DTR, d.fDtrControl == 1);
    if (d.fRtsControl != 2) setModemLine(port->fd, TIOCM_RTS, d.fRtsControl == 1);

    std::lock_guard<std::mutex> guard(port->lock);
    port->settings = d;
    port->settings.DCBlength = sizeof(DeviceControlBlock);
    return true;
}

bool getCommTimeouts(PortHandle handle, CommTimeouts* timeouts) {
    auto port = find(handle);
    if (!port || timeouts == nullptr) return false;
    std::lock_guard<std::mutex> guard(port->lock);
    *timeouts = port->timeouts;
    return true;
}

bool setCommTimeouts(PortHandle handle, const CommTimeouts* timeouts) {
    auto port = find(handle);
    if (!port || timeouts == nullptr) return false;
    std::lock_guard<std::mutex> guard(port->lock);
    port->timeouts = *timeouts;
    return true;
}

bool readPort(PortHandle handle, void* data, std::uint32_t count, std::uint32_t* bytesRead) {
    if (bytesRead != nullptr) *bytesRead = 0;
    auto port = find(handle);
    if (!port || bytesRead == nullptr || (data == nullptr && count > 0)) return false;
    CommTimeouts t;
    {
        std::lock_guard<std::mutex> guard(port->lock);
        t = port->timeouts;
    }
    if (count == 0) return true;
    auto* out = static_cast<unsigned char*>(data);

    // The Win32 rule: the read ends after multiplier * count + constant ms (no limit when both
    // are 0), or when the gap after a received byte exceeds the interval (0: no interval limit).
    const std::uint64_t totalMs =
        std::uint64_t{t.ReadTotalTimeoutMultiplier} * count + t.ReadTotalTimeoutConstant;
    const bool hasTotal = totalMs != 0;
    const bool hasInterval = t.ReadIntervalTimeout != 0;
    const Clock::time_point start = Clock::now();
    const Clock::time_point deadline = start + clampedMs(totalMs);
    Clock::time_point lastByte = start;

    std::uint32_t got = 0;
    while (got < count) {
        int wait = hasTotal ? millisecondsUntil(deadline) : -1;
        if (hasInterval && got > 0) {
            int gap =
                millisecondsUntil(lastByte + std::chrono::milliseconds(t.ReadIntervalTimeout));
            wait = wait < 0 ? gap : (gap < wait ? gap : wait);
        }
        pollfd fds[2] = {{port->fd, POLLIN, 0}, {port->wakeRead, POLLIN, 0}};
        int r = ::poll(fds, 2, wait);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (fds[1].revents != 0) return false;  // interrupted or closed
        if (r == 0) {
            if (hasTotal && Clock::now() >= deadline) break;
            if (hasInterval && got > 0 &&
                Clock::now() >= lastByte + std::chrono::milliseconds(t.ReadIntervalTimeout))
                break;
            continue;
        }
        if (fds[0].revents & POLLIN) {
            ssize_t n = ::read(port->fd, out + got, count - got);
            if (n > 0) {
                got += static_cast<std::uint32_t>(n);
                lastByte = Clock::now();
                continue;
            }
            if (n < 0 && (errno == EAGAIN || errno == EINTR)) continue;
            *bytesRead = got;
            return false;  // end of file or I/O error: the device went away
        }
        if (fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) {
            *bytesRead = got;
            return false;
        }
    }
    *bytesRead = got;
    return true;
}

bool writePort(PortHandle handle, const void* data, std::uint32_t count,
               std::uint32_t* bytesWritten) {
    if (bytesWritten != nullptr) *bytesWritten = 0;
    auto port = find(handle);
    if (!port || bytesWritten == nullptr || (data == nullptr && count > 0)) return false;
    CommTimeouts t;
    {
        std::lock_guard<std::mutex> guard(port->lock);
        t = port->timeouts;
    }
    const auto* in = static_cast<const unsigned char*>(data);
    const std::uint64_t totalMs =
        std::uint64_t{t.WriteTotalTimeoutMultiplier} * count + t.WriteTotalTimeoutConstant;
    const Clock::time_point deadline = Clock::now() + clampedMs(totalMs);

    std::uint32_t done = 0;
    while (done < count) {
        pollfd wakeOnly = {port->wakeRead, POLLIN, 0};
        if (::poll(&wakeOnly, 1, 0) > 0) return false;
        ssize_t n = ::write(port->fd, in + done, count - done);
        if (n > 0) {
            done += static_cast<std::uint32_t>(n);
            *bytesWritten = done;
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && errno != EAGAIN) return false;
        int wait = totalMs != 0 ? millisecondsUntil(deadline) : -1;
        if (wait == 0) break;  // write time-out: success with the bytes accepted so far
        pollfd fds[2] = {{port->fd, POLLOUT, 0}, {port->wakeRead, POLLIN, 0}};
        int r = ::poll(fds, 2, wait);
        if (r < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        if (fds[1].revents != 0) return false;
        if (r == 0) break;
        if ((fds[0].revents & (POLLHUP | POLLERR | POLLNVAL)) && !(fds[0].revents & POLLOUT))
            return false;
    }
    return true;
}

}  // namespace quelworks::detail
