#include "serial/fake_platform.h"

#include <algorithm>
#include <cstring>

#include "platform/serial_port.h"

namespace fake {

int Port::count(const std::string& call) const {
    return static_cast<int>(std::count(calls.begin(), calls.end(), call));
}

Port& port() {
    static Port* p = new Port;
    return *p;
}

void reset() {
    Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.failOpen = p.failGetState = p.failSetState = p.failGetTimeouts = p.failSetTimeouts = false;
    p.writesBeforeFailure = -1;
    p.emptyReadTime = std::chrono::milliseconds(0);
    p.input.clear();
    p.reported = quelworks::DeviceControlBlock{};
    p.reported.DCBlength = 28;
    p.reported.BaudRate = 1200;
    p.reported.XonLim = 2048;
    p.reported.XoffLim = 512;
    p.reported.fTXContinueOnXoff = 1;
    p.reported.fErrorChar = 1;
    p.reported.ErrorChar = '?';
    p.reported.EofChar = 0x1A;
    p.reported.EvtChar = 0x7E;
    p.reported.fDtrControl = 1;
    p.reported.fRtsControl = 1;
    p.reported.fOutX = 1;
    p.calls.clear();
    p.openedPaths.clear();
    p.closedHandles.clear();
    p.openHandles.clear();
    p.writes.clear();
    p.writeSources.clear();
    p.lastSetState = quelworks::DeviceControlBlock{};
    p.timeouts = quelworks::CommTimeouts{};
    p.setTimeoutsCalls = 0;
}

}  // namespace fake

namespace quelworks::detail {

using fake::port;

PortHandle openPort(const char* devicePath) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("open");
    p.openedPaths.push_back(devicePath);
    if (p.failOpen) return invalidPortHandle();
    auto* handle = reinterpret_cast<PortHandle>(p.nextHandle++);
    p.openHandles.insert(handle);
    return handle;
}

bool closePort(PortHandle handle) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("close");
    p.closedHandles.push_back(handle);
    p.wake.notify_all();
    return p.openHandles.erase(handle) == 1;
}

bool getCommState(PortHandle handle, DeviceControlBlock* settings) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("getCommState");
    if (p.failGetState || p.openHandles.count(handle) == 0) return false;
    *settings = p.reported;
    return true;
}

bool setCommState(PortHandle handle, const DeviceControlBlock* settings) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("setCommState");
    p.lastSetState = *settings;
    return !p.failSetState && p.openHandles.count(handle) == 1;
}

bool getCommTimeouts(PortHandle handle, CommTimeouts* timeouts) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("getCommTimeouts");
    if (p.failGetTimeouts || p.openHandles.count(handle) == 0) return false;
    *timeouts = p.timeouts;
    return true;
}

bool setCommTimeouts(PortHandle handle, const CommTimeouts* timeouts) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("setCommTimeouts");
    ++p.setTimeoutsCalls;
    if (p.failSetTimeouts || p.openHandles.count(handle) == 0) return false;
    p.timeouts = *timeouts;
    return true;
}

bool readPort(PortHandle handle, void* data, std::uint32_t count, std::uint32_t* bytesRead) {
    fake::Port& p = port();
    std::unique_lock<std::mutex> guard(p.lock);
    p.calls.push_back("read");
    *bytesRead = 0;
    if (p.openHandles.count(handle) == 0) return false;
    if (p.input.empty() && p.emptyReadTime.count() > 0) {
        p.wake.wait_for(guard, p.emptyReadTime,
                        [&] { return !p.input.empty() || p.openHandles.count(handle) == 0; });
    }
    if (p.openHandles.count(handle) == 0) return false;
    auto* out = static_cast<std::uint8_t*>(data);
    while (*bytesRead < count && !p.input.empty()) {
        out[(*bytesRead)++] = p.input.front();
        p.input.pop_front();
    }
    return true;
}

bool writePort(PortHandle handle, const void* data, std::uint32_t count,
               std::uint32_t* bytesWritten) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("write");
    *bytesWritten = 0;
    if (p.openHandles.count(handle) == 0) return false;
    if (p.writesBeforeFailure == 0) return false;
    if (p.writesBeforeFailure > 0) --p.writesBeforeFailure;
    const auto* in = static_cast<const std::uint8_t*>(data);
    p.writes.emplace_back(in, in + count);
    p.writeSources.push_back(data);
    *bytesWritten = count;
    return true;
}

void interruptPort(PortHandle) {
    fake::Port& p = port();
    std::lock_guard<std::mutex> guard(p.lock);
    p.calls.push_back("interrupt");
    p.wake.notify_all();
}

}  // namespace quelworks::detail
