// RS232: the synchronous serial port.
#include "quelworks/serial/rs232.h"

#include <cstdlib>
#include <cstring>

#include "platform/serial_port.h"
#include "serial/shared_blocks.h"

namespace {

using quelworks::detail::invalidPortHandle;

constexpr int kChunkSize = 50;       // bytes per write, so progress can be reported in between
constexpr int kProgressStep = 1000;  // bytes between two progress reports
constexpr int kGrowStep = 50;        // receive buffers grow by this many bytes
constexpr std::size_t kMaxTerminatorLength = 100;

// A new zero-filled block of `newSize` bytes holding the first `used` bytes of `old`, which is
// released. Null (and `old` released) when the allocation fails.
unsigned char* grow(unsigned char* old, int used, int newSize) {
    auto* bigger = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(newSize), 1));
    if (bigger != nullptr && used > 0) std::memcpy(bigger, old, static_cast<std::size_t>(used));
    std::free(old);
    return bigger;
}

}  // namespace

RS232::RS232()
    : portHandle(invalidPortHandle()),
      deviceControl(),
      timeouts(),
      lastResult(0),
      bytesWritten(0),
      portNameBuffer(nullptr),
      Baudrate(9600),
      SendProgressCallback(nullptr),
      LineTerminator("\r\n"),
      XonXoffFlowControl(false) {}

RS232::RS232(const RS232& other)
    : Communicator(other),
      portHandle(other.portHandle),
      deviceControl(other.deviceControl),
      timeouts(other.timeouts),
      lastResult(other.lastResult),
      bytesWritten(other.bytesWritten),
      portNameBuffer(other.portNameBuffer),
      Baudrate(other.Baudrate),
      SendProgressCallback(other.SendProgressCallback),
      LineTerminator(other.LineTerminator),
      XonXoffFlowControl(other.XonXoffFlowControl) {
    quelworks::detail::retainBlock(portNameBuffer);
}

RS232& RS232::operator=(const RS232& other) {
    if (this == &other) return *this;
    quelworks::detail::retainBlock(other.portNameBuffer);
    quelworks::detail::releaseBlock(portNameBuffer);
    portHandle = other.portHandle;
    deviceControl = other.deviceControl;
    timeouts = other.timeouts;
    lastResult = other.lastResult;
    bytesWritten = other.bytesWritten;
    portNameBuffer = other.portNameBuffer;
    Baudrate = other.Baudrate;
    SendProgressCallback = other.SendProgressCallback;
    LineTerminator = other.LineTerminator;
    XonXoffFlowControl = other.XonXoffFlowControl;
    return *this;
}

RS232::~RS232() {
    quelworks::detail::releaseBlock(portNameBuffer);
    portNameBuffer = nullptr;
    ClosePort();
}

bool RS232::IsConnected() {
    return portHandle != invalidPortHandle();
}

char* RS232::PortName() {
    if (portNameBuffer == nullptr) return nullptr;
    std::size_t size = std::strlen(portNameBuffer) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, portNameBuffer, size);
    return copy;
}

void RS232::PortName(char* name) {
    // The copy is made before the old name goes, so passing the stored name itself is safe.
    char* copy = nullptr;
    if (name != nullptr && name[0] != '\0') {
        std::size_t size = std::strlen(name) + 1;
        copy = static_cast<char*>(std::malloc(size));
        if (copy != nullptr) {
            std::memcpy(copy, name, size);
            quelworks::detail::adoptBlock(copy);
        }
    }
    quelworks::detail::releaseBlock(portNameBuffer);
    portNameBuffer = copy;
}

bool RS232::Connect() {
    if (portNameBuffer == nullptr) return false;
    char* name = PortName();
    if (name == nullptr) return false;
    bool result = Connect(name);
    std::free(name);
    return result;
}

bool RS232::Connect(char* portName) {
    if (IsConnected()) Disconnect();
    if (portName == nullptr || portName[0] == '\0') return false;
    PortName(portName);
    if (portNameBuffer == nullptr) return false;
    if (!OpenPort(portName)) {
        ClosePort();
        return false;
    }
    if (!SetCommunicationTimeouts(1000, 1000, 1000, 1000, 1000)) {
        ClosePort();
        return false;
    }
    // A rejected configuration closes the handle but leaves it in portHandle: the link then
    // still reports itself connected, and every later call on it fails.
    return ConfigurePort(Baudrate, 8, 0, 0, 0);
}

void RS232::Disconnect() {
    ClosePort();
}

bool RS232::OpenPort(char* name) {
    std::size_t length = std::strlen(name);
    char* path = static_cast<char*>(std::calloc(length + 5, 1));
    if (path == nullptr) return false;
    std::memcpy(path, "//./", 4);
    std::memcpy(path + 4, name, length);
    portHandle = quelworks::detail::openPort(path);
    std::free(path);
    return portHandle != invalidPortHandle();
}

bool RS232::SetCommunicationTimeouts(unsigned long readInterval, unsigned long readTotalMultiplier,
                                     unsigned long readTotalConstant,
                                     unsigned long writeTotalMultiplier,
                                     unsigned long writeTotalConstant) {
    lastResult = quelworks::detail::getCommTimeouts(portHandle, &timeouts) ? 1 : 0;
    if (lastResult == 0) {
        quelworks::detail::closePort(portHandle);
        return false;
    }
    timeouts.ReadIntervalTimeout = static_cast<std::uint32_t>(readInterval);
    timeouts.ReadTotalTimeoutMultiplier = static_cast<std::uint32_t>(readTotalMultiplier);
    timeouts.ReadTotalTimeoutConstant = static_cast<std::uint32_t>(readTotalConstant);
    timeouts.WriteTotalTimeoutMultiplier = static_cast<std::uint32_t>(writeTotalMultiplier);
    timeouts.WriteTotalTimeoutConstant = static_cast<std::uint32_t>(writeTotalConstant);
    lastResult = quelworks::detail::setCommTimeouts(portHandle, &timeouts) ? 1 : 0;
    if (lastResult == 0) {
        quelworks::detail::closePort(portHandle);
        return false;
    }
    return true;
}

bool RS232::ConfigurePort(unsigned long baudRate, unsigned char byteSize, unsigned long parityCheck,
                          unsigned char parity, unsigned char stopBits) {
    lastResult = quelworks::detail::getCommState(portHandle, &deviceControl) ? 1 : 0;
    if (lastResult == 0) {
        quelworks::detail::closePort(portHandle);
        return false;
    }
    deviceControl.DCBlength = 28;
    deviceControl.BaudRate = static_cast<std::uint32_t>(baudRate);
    deviceControl.ByteSize = byteSize;
    deviceControl.Parity = parity;
    deviceControl.StopBits = stopBits;
    deviceControl.XonChar = 0x11;
    deviceControl.XoffChar = 0x13;
    deviceControl.fBinary = 1;
    deviceControl.fParity = parityCheck & 1;
    deviceControl.fOutxCtsFlow = 0;
    deviceControl.fOutxDsrFlow = 0;
    deviceControl.fDtrControl = 0;
    deviceControl.fDsrSensitivity = 0;
    deviceControl.fOutX = XonXoffFlowControl ? 1 : 0;
    deviceControl.fInX = XonXoffFlowControl ? 1 : 0;
    deviceControl.fNull = 0;
    deviceControl.fRtsControl = 0;
    deviceControl.fAbortOnError = 1;
    lastResult = quelworks::detail::setCommState(portHandle, &deviceControl) ? 1 : 0;
    if (lastResult == 0) {
        quelworks::detail::closePort(portHandle);
        return false;
    }
    return true;
}

void RS232::ClosePort() {
    quelworks::detail::closePort(portHandle);
    portHandle = invalidPortHandle();
}

bool RS232::Send(char* text) {
    if (text == nullptr) return Send(static_cast<unsigned char*>(nullptr), 0);
    return Send(reinterpret_cast<unsigned char*>(text), static_cast<int>(std::strlen(text)));
}

bool RS232::Send(unsigned char* data, int length) {
    if (length >= 1) {
        if (data == nullptr) return false;
        int lastReport = 0;
        for (int offset = 0; offset < length; offset += kChunkSize) {
            if (SendProgressCallback != nullptr && offset - lastReport > kProgressStep) {
                lastReport = offset;
                if (!SendProgressCallback(offset + 1, length)) return false;
            }
            bytesWritten = 0;
            int chunk = length - offset < kChunkSize ? length - offset : kChunkSize;
            // A short write (a write time-out) is not an error here.
            if (!quelworks::detail::writePort(portHandle, data + offset,
                                              static_cast<std::uint32_t>(chunk), &bytesWritten))
                return false;
        }
    }
    if (SendProgressCallback != nullptr) return SendProgressCallback(length, length);
    return true;
}

bool RS232::ReadByte(unsigned char* byte) {
    *byte = 0;
    unsigned char received = 0;
    std::uint32_t count = 0;
    if (!quelworks::detail::readPort(portHandle, &received, 1, &count) || count != 1) return false;
    *byte = received;
    return true;
}

bool RS232::Receive(unsigned char* data, int count, int timeout) {
    const auto t = static_cast<unsigned long>(static_cast<unsigned int>(timeout));
    if (!SetCommunicationTimeouts(t, t, t, t, t)) return false;
    if (count < 1) return true;
    if (data == nullptr) return false;
    for (int i = 0; i < count; ++i) {
        if (!ReadByte(data + i)) return false;
    }
    return true;
}

bool RS232::Receive(unsigned char** data, int* length, int timeout) {
    const auto t = static_cast<unsigned long>(static_cast<unsigned int>(timeout));
    if (!SetCommunicationTimeouts(t, t, t, t, t)) return false;
    if (data == nullptr || length == nullptr) return false;
    *length = 0;
    int capacity = kGrowStep;
    auto* work = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(capacity), 1));
    if (work == nullptr) return false;
    int count = 0;
    unsigned char byte = 0;
    while (ReadByte(&byte)) {
        work[count++] = byte;
        if (count == capacity) {
            capacity += kGrowStep;
            work = grow(work, count, capacity);
            if (work == nullptr) return false;
        }
    }
    if (count == 0) {
        std::free(work);
        return false;
    }
    auto* result = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(count), 1));
    if (result == nullptr) {
        std::free(work);
        return false;
    }
    std::memcpy(result, work, static_cast<std::size_t>(count));
    *data = result;
    *length = count;
    std::free(work);
    return true;
}

bool RS232::ReceiveLine(unsigned char** data, int* length, int timeout) {
    const auto t = static_cast<unsigned long>(static_cast<unsigned int>(timeout));
    if (!SetCommunicationTimeouts(t, t, t, t, t)) return false;
    if (data == nullptr || length == nullptr) return false;
    *length = 0;
    int capacity = kGrowStep;
    auto* work = static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(capacity), 1));
    if (work == nullptr) return false;

    const char* terminator = LineTerminator != nullptr ? LineTerminator : "";
    const std::size_t terminatorLength = std::strlen(terminator);
    unsigned char byte = 0;
    if (!Receive(&byte, 1, timeout)) {
        std::free(work);
        return false;
    }
    int count = 0;
    // The text is the received bytes up to the first zero byte: once a zero byte came, the text
    // stops growing and no terminator after it can complete the line.
    int textLength = 0;
    bool zeroSeen = false;
    for (;;) {
        work[count++] = byte;
        if (!zeroSeen) {
            if (byte == 0) {
                zeroSeen = true;
            } else {
                textLength = count;
            }
        }
        bool complete = false;
        if (terminatorLength == 0) {
            complete = true;
        } else if (terminatorLength <= kMaxTerminatorLength &&
                   terminatorLength <= static_cast<std::size_t>(textLength)) {
            complete = std::memcmp(work + textLength - terminatorLength, terminator,
                                   terminatorLength) == 0;
        }
        if (complete) {
            auto* line =
                static_cast<unsigned char*>(std::calloc(static_cast<std::size_t>(count) + 1, 1));
            if (line == nullptr) {
                std::free(work);
                return false;
            }
            std::memcpy(line, work, static_cast<std::size_t>(count));
            *data = line;
            *length = count;
            std::free(work);
            return true;
        }
        if (count == capacity) {
            capacity += kGrowStep;
            work = grow(work, count, capacity);
            if (work == nullptr) return false;
        }
        if (!Receive(&byte, 1, timeout)) {
            std::free(work);
            return false;
        }
    }
}

void RS232::GetCOMPorts(RList<char*>* ports) {
    if (ports == nullptr) return;
    for (char* name : *ports) std::free(name);
    ports->free();
    quelworks::detail::listPorts(ports);
}
