#include "serial/fake_platform.h"

#include <algorithm>

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
    p.failSetState = p.failGetTimeouts = p.failSetTimeouts = false;
    p.writesBeforeFailure = -1;
    p.emptyReadTime = std::chrono::milliseconds(0);
    p.input.clear();
    p.calls.clear();
    p.openedPaths.clear();
    p.closedHandles.clear();
    p.openHandles.clear();
    p.writes.clear();
    p.writeSources.clear();
    p.lastSetState = quelworks::DeviceControlBlock{};
    p.timeouts = quelworks::CommTimeouts{};
}

// One call on the fake port: recorded, under its lock.
struct Call {
    Port& p = port();
    std::unique_lock<std::mutex> guard{p.lock};
    explicit Call(const char* name) { p.calls.push_back(name); }
    bool isOpen(void* handle) const { return p.openHandles.count(handle) == 1; }
};

}  // namespace fake

namespace quelworks::detail {

using fake::Call;

PortHandle openPort(const char* devicePath) {
    Call c("open");
    c.p.openedPaths.push_back(devicePath);
    auto* handle = reinterpret_cast<PortHandle>(c.p.nextHandle++);
    c.p.openHandles.insert(handle);
    return handle;
}

bool closePort(PortHandle handle) {
    Call c("close");
    c.p.closedHandles.push_back(handle);
    c.p.wake.notify_all();
    return c.p.openHandles.erase(handle) == 1;
}

bool getCommState(PortHandle handle, DeviceControlBlock* settings) {
    Call c("getCommState");
    if (!c.isOpen(handle)) return false;
    *settings = DeviceControlBlock{};  // what an unconfigured port reports
    settings->DCBlength = 28;
    settings->BaudRate = 1200;
    settings->XonLim = 2048;
    settings->fDtrControl = settings->fRtsControl = settings->fOutX = 1;
    return true;
}

bool setCommState(PortHandle handle, const DeviceControlBlock* settings) {
    Call c("setCommState");
    c.p.lastSetState = *settings;
    return !c.p.failSetState && c.isOpen(handle);
}

bool getCommTimeouts(PortHandle handle, CommTimeouts* timeouts) {
    Call c("getCommTimeouts");
    if (c.p.failGetTimeouts || !c.isOpen(handle)) return false;
    *timeouts = c.p.timeouts;
    return true;
}

bool setCommTimeouts(PortHandle handle, const CommTimeouts* timeouts) {
    Call c("setCommTimeouts");
    if (c.p.failSetTimeouts || !c.isOpen(handle)) return false;
    c.p.timeouts = *timeouts;
    return true;
}

bool readPort(PortHandle handle, void* data, std::uint32_t count, std::uint32_t* bytesRead) {
    Call c("read");
    *bytesRead = 0;
    if (c.p.input.empty() && c.p.emptyReadTime.count() > 0) {
        c.p.wake.wait_for(c.guard, c.p.emptyReadTime,
                          [&] { return !c.p.input.empty() || !c.isOpen(handle); });
    }
    if (!c.isOpen(handle)) return false;
    auto* out = static_cast<std::uint8_t*>(data);
    for (; *bytesRead < count && !c.p.input.empty(); c.p.input.pop_front())
        out[(*bytesRead)++] = c.p.input.front();
    return true;
}

bool writePort(PortHandle handle, const void* data, std::uint32_t count,
               std::uint32_t* bytesWritten) {
    Call c("write");
    *bytesWritten = 0;
    if (!c.isOpen(handle) || c.p.writesBeforeFailure == 0) return false;
    if (c.p.writesBeforeFailure > 0) --c.p.writesBeforeFailure;
    const auto* in = static_cast<const std::uint8_t*>(data);
    c.p.writes.emplace_back(in, in + count);
    c.p.writeSources.push_back(data);
    *bytesWritten = count;
    return true;
}

void interruptPort(PortHandle) {
    Call c("interrupt");
    c.p.wake.notify_all();
}

}  // namespace quelworks::detail
