// The serial port on Windows: the communications functions on "//./NAME".
#include "platform/windows_include.h"

#include <cstdint>
#include <string>

#include "platform/serial_port.h"
#include "platform/system_name.h"

namespace quelworks::detail {
namespace {

HANDLE toHandle(PortHandle handle) {
    return static_cast<HANDLE>(handle);
}

void toNative(const DeviceControlBlock& d, DCB* n) {
    n->DCBlength = d.DCBlength;
    n->BaudRate = d.BaudRate;
    n->fBinary = d.fBinary;
    n->fParity = d.fParity;
    n->fOutxCtsFlow = d.fOutxCtsFlow;
    n->fOutxDsrFlow = d.fOutxDsrFlow;
    n->fDtrControl = d.fDtrControl;
    n->fDsrSensitivity = d.fDsrSensitivity;
    n->fTXContinueOnXoff = d.fTXContinueOnXoff;
    n->fOutX = d.fOutX;
    n->fInX = d.fInX;
    n->fErrorChar = d.fErrorChar;
    n->fNull = d.fNull;
    n->fRtsControl = d.fRtsControl;
    n->fAbortOnError = d.fAbortOnError;
    n->fDummy2 = d.fDummy2;
    n->wReserved = d.wReserved;
    n->XonLim = d.XonLim;
    n->XoffLim = d.XoffLim;
    n->ByteSize = d.ByteSize;
    n->Parity = d.Parity;
    n->StopBits = d.StopBits;
    n->XonChar = d.XonChar;
    n->XoffChar = d.XoffChar;
    n->ErrorChar = d.ErrorChar;
    n->EofChar = d.EofChar;
    n->EvtChar = d.EvtChar;
    n->wReserved1 = d.wReserved1;
}

void fromNative(const DCB& n, DeviceControlBlock* d) {
    d->DCBlength = n.DCBlength;
    d->BaudRate = n.BaudRate;
    d->fBinary = n.fBinary;
    d->fParity = n.fParity;
    d->fOutxCtsFlow = n.fOutxCtsFlow;
    d->fOutxDsrFlow = n.fOutxDsrFlow;
    d->fDtrControl = n.fDtrControl;
    d->fDsrSensitivity = n.fDsrSensitivity;
    d->fTXContinueOnXoff = n.fTXContinueOnXoff;
    d->fOutX = n.fOutX;
    d->fInX = n.fInX;
    d->fErrorChar = n.fErrorChar;
    d->fNull = n.fNull;
    d->fRtsControl = n.fRtsControl;
    d->fAbortOnError = n.fAbortOnError;
    d->fDummy2 = n.fDummy2;
    d->wReserved = n.wReserved;
    d->XonLim = n.XonLim;
    d->XoffLim = n.XoffLim;
    d->ByteSize = n.ByteSize;
    d->Parity = n.Parity;
    d->StopBits = n.StopBits;
    d->XonChar = n.XonChar;
    d->XoffChar = n.XoffChar;
    d->ErrorChar = n.ErrorChar;
    d->EofChar = n.EofChar;
    d->EvtChar = n.EvtChar;
    d->wReserved1 = n.wReserved1;
}

}  // namespace

static_assert(sizeof(DeviceControlBlock) == sizeof(DCB), "DCB layout");
static_assert(sizeof(CommTimeouts) == sizeof(COMMTIMEOUTS), "COMMTIMEOUTS layout");

PortHandle openPort(const char* devicePath) {
    // The name reaches the system in UTF-16, converted from the ANSI code page (the C++
    // interface) or from UTF-8 (the C interface).
    std::wstring name;
    if (!systemName(devicePath, &name)) return invalidPortHandle();
    HANDLE h = CreateFileW(name.c_str(), 0xC0000000 /* GENERIC_READ | GENERIC_WRITE */, 0, nullptr,
                           3 /* OPEN_EXISTING */, 0, nullptr);
    return static_cast<PortHandle>(h);
}

bool closePort(PortHandle handle) {
    return CloseHandle(toHandle(handle)) != 0;
}

bool getCommState(PortHandle handle, DeviceControlBlock* settings) {
    if (settings == nullptr) return false;
    DCB native{};
    native.DCBlength = sizeof(DCB);
    if (!GetCommState(toHandle(handle), &native)) return false;
    fromNative(native, settings);
    return true;
}

bool setCommState(PortHandle handle, const DeviceControlBlock* settings) {
    if (settings == nullptr) return false;
    DCB native{};
    toNative(*settings, &native);
    return SetCommState(toHandle(handle), &native) != 0;
}

bool getCommTimeouts(PortHandle handle, CommTimeouts* timeouts) {
    if (timeouts == nullptr) return false;
    COMMTIMEOUTS native{};
    if (!GetCommTimeouts(toHandle(handle), &native)) return false;
    timeouts->ReadIntervalTimeout = native.ReadIntervalTimeout;
    timeouts->ReadTotalTimeoutMultiplier = native.ReadTotalTimeoutMultiplier;
    timeouts->ReadTotalTimeoutConstant = native.ReadTotalTimeoutConstant;
    timeouts->WriteTotalTimeoutMultiplier = native.WriteTotalTimeoutMultiplier;
    timeouts->WriteTotalTimeoutConstant = native.WriteTotalTimeoutConstant;
    return true;
}

bool setCommTimeouts(PortHandle handle, const CommTimeouts* timeouts) {
    if (timeouts == nullptr) return false;
    COMMTIMEOUTS native{};
    native.ReadIntervalTimeout = timeouts->ReadIntervalTimeout;
    native.ReadTotalTimeoutMultiplier = timeouts->ReadTotalTimeoutMultiplier;
    native.ReadTotalTimeoutConstant = timeouts->ReadTotalTimeoutConstant;
    native.WriteTotalTimeoutMultiplier = timeouts->WriteTotalTimeoutMultiplier;
    native.WriteTotalTimeoutConstant = timeouts->WriteTotalTimeoutConstant;
    return SetCommTimeouts(toHandle(handle), &native) != 0;
}

bool readPort(PortHandle handle, void* data, std::uint32_t count, std::uint32_t* bytesRead) {
    DWORD got = 0;
    BOOL ok = ReadFile(toHandle(handle), data, count, &got, nullptr);
    if (bytesRead != nullptr) *bytesRead = got;
    return ok != 0;
}

bool writePort(PortHandle handle, const void* data, std::uint32_t count,
               std::uint32_t* bytesWritten) {
    DWORD done = 0;
    BOOL ok = WriteFile(toHandle(handle), data, count, &done, nullptr);
    if (bytesWritten != nullptr) *bytesWritten = done;
    return ok != 0;
}

void interruptPort(PortHandle handle) {
    // Ends a ReadFile or WriteFile that another thread is blocked in on this handle.
    if (handle != invalidPortHandle() && handle != nullptr) CancelIoEx(toHandle(handle), nullptr);
}

}  // namespace quelworks::detail
