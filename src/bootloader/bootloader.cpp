#include "quelworks/bootloader/bootloader.h"

#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bootloader/protocol.h"
#include "platform/system_name.h"
#include "quelworks/serial/crc_ccitt.h"

namespace {

using namespace quelworks::protocol;

// Bootloaders above version 1 want this text after the enter request.
char kEnterProgmodeText[] = "Enter Progmode\r\n";

constexpr int kDrainTimeoutMs = 100;
// A device that never stops sending (an application that logs without pause) must not hold the
// constructor forever: the drain ends after this much time or this many bytes, whichever comes
// first. A device that has said what it had to say goes quiet long before either.
constexpr auto kDrainMaxTime = std::chrono::seconds(5);
constexpr long kDrainMaxBytes = 1L << 20;
// A description longer than this is cut off and treated as unterminated.
constexpr std::size_t kDescriptionMaxBytes = 1u << 16;
constexpr int kSettleAfterEnterMs = 100;
constexpr int kMinimumTimeoutMs = 10;

void sleepMs(int ms) {
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

// Big-endian unsigned number from `count` bytes.
std::uint32_t bigEndian(const unsigned char* bytes, int count) {
    std::uint32_t value = 0;
    for (int i = 0; i < count; ++i) value = (value << 8) | bytes[i];
    return value;
}

char* duplicate(const char* text) {
    if (text == nullptr) return nullptr;
    std::size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

Bootloader::Bootloader(char* portName, int timeout, bool acquireDeviceInfo)
    : ProgressCallback(nullptr),
      deviceInfoAvailable(false),
      timeout(1000),
      deviceType(0),
      subDeviceType(0),
      revision(0),
      firmwareVersion(0),
      bootloaderVersion(0),
      serialNumber(nullptr),
      deviceDescription(nullptr),
      maxBaudrate(9600),
      blockSize(0),
      programParameter2(0),
      link(),
      programMode(NotInProgramMode) {
    InitializeClass(portName, timeout, acquireDeviceInfo);
}

Bootloader::Bootloader(char* portName, int timeout) : Bootloader(portName, timeout, true) {}

Bootloader::Bootloader(char* portName, bool acquireDeviceInfo)
    : Bootloader(portName, 1000, acquireDeviceInfo) {}

Bootloader::Bootloader(char* portName) : Bootloader(portName, 1000, true) {}

Bootloader::Bootloader(const Bootloader& other)
    : ProgressCallback(other.ProgressCallback),
      deviceInfoAvailable(other.deviceInfoAvailable),
      timeout(other.timeout),
      deviceType(other.deviceType),
      subDeviceType(other.subDeviceType),
      revision(other.revision),
      firmwareVersion(other.firmwareVersion),
      bootloaderVersion(other.bootloaderVersion),
      serialNumber(duplicate(other.serialNumber)),
      deviceDescription(duplicate(other.deviceDescription)),
      maxBaudrate(other.maxBaudrate),
      blockSize(other.blockSize),
      programParameter2(other.programParameter2),
      link(other.link),
      programMode(other.programMode) {}

Bootloader& Bootloader::operator=(const Bootloader& other) {
    if (this == &other) return *this;
    // Copy the strings first so that a failed allocation leaves nothing half-assigned.
    char* serial = duplicate(other.serialNumber);
    char* description = duplicate(other.deviceDescription);
    std::free(serialNumber);
    std::free(deviceDescription);
    serialNumber = serial;
    deviceDescription = description;
    ProgressCallback = other.ProgressCallback;
    deviceInfoAvailable = other.deviceInfoAvailable;
    timeout = other.timeout;
    deviceType = other.deviceType;
    subDeviceType = other.subDeviceType;
    revision = other.revision;
    firmwareVersion = other.firmwareVersion;
    bootloaderVersion = other.bootloaderVersion;
    maxBaudrate = other.maxBaudrate;
    blockSize = other.blockSize;
    programParameter2 = other.programParameter2;
    link = other.link;
    programMode = other.programMode;
    return *this;
}

Bootloader::~Bootloader() {
    std::free(serialNumber);
    std::free(deviceDescription);
    link.Disconnect();
}

void Bootloader::InitializeClass(char* portName, int timeoutMs, bool acquire) {
    // No name is treated like an empty one: the link stays without a port and every operation
    // fails.
    char noName[] = "";
    link.PortName(portName != nullptr ? portName : noName);
    link.Baudrate = 9600;
    serialNumber = nullptr;
    deviceDescription = nullptr;
    deviceInfoAvailable = false;
    ProgressCallback = nullptr;
    timeout = timeoutMs;
    maxBaudrate = 9600;

    // Whatever the device still had to say from an earlier conversation would be read as the
    // echo of the first query: read until the line stays quiet.
    // Byte by byte with the same time-outs as a read of everything pending, so the line counts
    // as quiet exactly as before, but with a bound on time and bytes.
    if (link.Connect()) {
        const auto until = std::chrono::steady_clock::now() + kDrainMaxTime;
        unsigned char byte = 0;
        for (long drained = 0; drained < kDrainMaxBytes && link.Receive(&byte, 1, kDrainTimeoutMs);
             ++drained) {
            if (std::chrono::steady_clock::now() >= until) break;
        }
    }
    link.Disconnect();

    if (acquire) deviceInfoAvailable = AcquireDeviceInfo();
}

bool Bootloader::acquireDataField(unsigned char command, int replyLength, int* value) {
    if (replyLength < 1) return false;
    // Bytes that do not arrive read as zero; only the echo decides whether the reply counts.
    std::vector<unsigned char> reply(static_cast<std::size_t>(replyLength), 0);
    unsigned char request = command;
    link.Send(&request, 1);
    link.Receive(reply.data(), replyLength, timeout);
    if (reply[0] != command) return false;
    *value = static_cast<int>(bigEndian(reply.data() + 1, replyLength - 1));
    return true;
}

bool Bootloader::acquireDeviceType() {
    if (acquireDataField(kDeviceType, 3, &deviceType)) return true;
    // Devices that report their type in one byte.
    return acquireDataField(kDeviceType, 2, &deviceType);
}

bool Bootloader::acquireDeviceSubType() {
    return acquireDataField(kSubType, 3, &subDeviceType);
}

bool Bootloader::acquireRevision() {
    return acquireDataField(kRevision, 3, &revision);
}

bool Bootloader::acquireFirmwareVersion() {
    return acquireDataField(kFirmwareVersion, 3, &firmwareVersion);
}

bool Bootloader::acquireBootloaderVersion() {
    return acquireDataField(kBootloaderVersion, 3, &bootloaderVersion);
}

bool Bootloader::acquireMaxBaudrate() {
    return acquireDataField(kMaxBaudrate, 5, &maxBaudrate);
}

bool Bootloader::acquireProgramMode() {
    int state = 0;
    bool ok = acquireDataField(kProgramMode, 2, &state);
    // A device that does not answer is not known to be in programming mode.
    programMode = ok && state == kAccepted ? InProgramMode : NotInProgramMode;
    return ok;
}

bool Bootloader::acquireSerialNumber() {
    unsigned char reply[9] = {};
    unsigned char request = kSerialNumber;
    link.Send(&request, 1);
    link.Receive(reply, 9, timeout);
    if (reply[0] != kSerialNumber) return false;
    char* serial = static_cast<char*>(std::malloc(9));
    if (serial == nullptr) return false;
    // Eight characters at most; a zero byte ends the text early and the rest is zero-filled.
    std::strncpy(serial, reinterpret_cast<const char*>(reply + 1), 8);
    serial[8] = '\0';
    std::free(serialNumber);
    serialNumber = serial;
    return true;
}

bool Bootloader::acquireProgramParameters() {
    unsigned char reply[9] = {};
    unsigned char request = kProgramParameters;
    link.Send(&request, 1);
    link.Receive(reply, 9, timeout);
    if (reply[0] != kProgramParameters) return false;
    blockSize = static_cast<int>(bigEndian(reply + 1, 4));
    programParameter2 = static_cast<int>(bigEndian(reply + 5, 4));
    return true;
}

bool Bootloader::acquireDeviceDescription() {
    std::string text;
    unsigned char request = kDescription;
    link.Send(&request, 1);
    bool terminated = false;
    for (;;) {
        unsigned char byte = 'a';
        if (!link.Receive(&byte, 1, timeout)) break;
        if (byte == 0x00) {
            terminated = true;
            break;
        }
        if (text.size() >= kDescriptionMaxBytes) break;
        text.push_back(static_cast<char>(byte));
    }
    if (!text.empty()) {
        // The first character is the echo of the request; it is dropped unchecked.
        char* description = static_cast<char*>(std::malloc(text.size()));
        if (description != nullptr) {
            std::memcpy(description, text.data() + 1, text.size() - 1);
            description[text.size() - 1] = '\0';
            std::free(deviceDescription);
            deviceDescription = description;
        }
    }
    return terminated;
}

bool Bootloader::AcquireDeviceInfo() {
    bool result = false;
    if (!link.Connect()) {
        subDeviceType = 0;
    } else if (!acquireBootloaderVersion() || !acquireDeviceType()) {
        subDeviceType = 0;
    } else {
        bool subTypeOk = true;
        if (deviceType != 0) {
            subTypeOk = acquireDeviceSubType();
        } else {
            subDeviceType = 0;
        }
        // The order is fixed: it is what the device firmware has always seen.
        result = subTypeOk && acquireFirmwareVersion() && acquireMaxBaudrate() &&
                 acquireRevision() && acquireSerialNumber() && acquireProgramMode() &&
                 acquireDeviceDescription();
        if (result && programMode == InProgramMode) result = acquireProgramParameters();
    }
    deviceInfoAvailable = result;
    link.Disconnect();
    return result;
}

bool Bootloader::IsDeviceInfoAvailable() {
    return deviceInfoAvailable;
}

bool Bootloader::GetDeviceType(int* value) {
    *value = deviceType;
    return deviceInfoAvailable;
}

bool Bootloader::GetSubDeviceType(int* value) {
    *value = subDeviceType;
    return deviceInfoAvailable;
}

bool Bootloader::GetRevision(int* value) {
    *value = revision;
    return deviceInfoAvailable;
}

bool Bootloader::GetFirmwareVersion(int* value) {
    *value = firmwareVersion;
    return deviceInfoAvailable;
}

bool Bootloader::GetBootloaderVersion(int* value) {
    *value = bootloaderVersion;
    return deviceInfoAvailable;
}

bool Bootloader::GetMaxBaudrate(int* value) {
    *value = maxBaudrate;
    return deviceInfoAvailable;
}

bool Bootloader::GetProgramMode(DeviceProgrammingState* value) {
    *value = programMode;
    return deviceInfoAvailable;
}

bool Bootloader::GetSerialNumber(char** value) {
    if (!deviceInfoAvailable) return false;
    char* copy = duplicate(serialNumber != nullptr ? serialNumber : "");
    if (copy == nullptr) return false;
    *value = copy;
    return true;
}

bool Bootloader::GetDeviceDescription(char** value) {
    if (!deviceInfoAvailable) return false;
    char* copy = duplicate(deviceDescription != nullptr ? deviceDescription : "");
    if (copy == nullptr) return false;
    *value = copy;
    return true;
}

bool Bootloader::SwitchToMaxBaudrate() {
    if (!link.Connect()) return false;
    unsigned char request = kSwitchBaudrate;
    unsigned char reply[2] = {};
    link.Send(&request, 1);
    link.Receive(reply, 2, timeout);
    link.Disconnect();
    if (reply[0] != kSwitchBaudrate || reply[1] != kAccepted) return false;
    // The next operation's Connect opens the port at the new rate.
    link.Baudrate = static_cast<std::uint32_t>(maxBaudrate);
    return true;
}

bool Bootloader::EnterBootloader() {
    if (deviceInfoAvailable && programMode == InProgramMode) return true;
    // The poll interval is a tenth of the time-out; below 10 ms it would be zero.
    if (timeout < kMinimumTimeoutMs) return false;
    const int interval = timeout / 10;

    link.Connect();
    unsigned char request = kEnterBootloader;
    link.Send(&request, 1);
    if (bootloaderVersion > 1) link.Send(kEnterProgmodeText);

    // timeout / interval + 2 polls at most, each after its pause.
    for (int attempt = 0;; ++attempt) {
        sleepMs(interval);
        if (attempt > timeout / interval + 1) {
            link.Disconnect();
            return false;
        }
        acquireProgramMode();
        if (programMode == InProgramMode) break;
    }

    // The bootloader needs a moment before it answers the next query.
    sleepMs(kSettleAfterEnterMs);
    bool ok = acquireProgramParameters();
    link.Disconnect();
    return ok && programMode == InProgramMode;
}

bool Bootloader::UpdateFirmware(int value, char* fileName) {
    if (!deviceInfoAvailable || programMode != InProgramMode) return false;
    // A zero or negative block size would never cut the image.
    if (blockSize <= 0 || fileName == nullptr) return false;

    // The name's meaning (ANSI code page or UTF-8) is the platform layer's business. Only a
    // regular file is taken: a folder could report a size and be read as zeros, a FIFO would
    // block.
    std::FILE* file = quelworks::detail::openRegularFile(fileName);
    if (file == nullptr) return false;
    long end = -1;
    if (std::fseek(file, 0, SEEK_END) == 0) end = std::ftell(file);
    if (end < 0 || end > INT_MAX || std::fseek(file, 0, SEEK_SET) != 0) {
        std::fclose(file);
        return false;
    }
    const int imageSize = static_cast<int>(end);
    std::vector<unsigned char> image(static_cast<std::size_t>(imageSize));
    // A read error (or a file that shrank meanwhile) fails the update before anything is sent.
    const bool complete =
        imageSize == 0 || std::fread(image.data(), 1, image.size(), file) == image.size();
    std::fclose(file);
    if (!complete) return false;

    // Cut the image into blocks before talking to the device.
    std::vector<int> offsets;
    std::vector<int> lengths;
    for (int remaining = imageSize; remaining > 0;) {
        int length = remaining < blockSize ? remaining : blockSize;
        offsets.push_back(imageSize - remaining);
        lengths.push_back(length);
        remaining -= length;
    }
    if (offsets.empty()) return false;
    const int blockCount = static_cast<int>(offsets.size());

    const int lastLength = lengths.back();
    unsigned char header[10] = {
        kEnterBootloader,
        static_cast<unsigned char>(blockCount & 0xFF),  // one byte wide: the count modulo 256
        static_cast<unsigned char>(imageSize >> 24),
        static_cast<unsigned char>(imageSize >> 16),
        static_cast<unsigned char>(imageSize >> 8),
        static_cast<unsigned char>(imageSize),
        static_cast<unsigned char>(lastLength >> 8),
        static_cast<unsigned char>(lastLength),
        static_cast<unsigned char>(value >> 8),
        static_cast<unsigned char>(value),
    };
    // One reply buffer for the header and every block, never cleared in between; only the
    // first byte of each reply decides.
    unsigned char reply[3] = {0x01, 0x02, 0x03};

    link.Connect();
    link.Send(header, 10);
    link.Receive(reply, 2, timeout);
    if (reply[0] != kEnterBootloader || reply[1] != kAccepted) {
        link.Disconnect();
        return false;
    }

    for (int i = 0; i < blockCount; ++i) {
        unsigned char* block = image.data() + offsets[i];
        CRC_CCITT crc(CRC_CCITT::AllOnes);
        unsigned short checksum = crc.ComputeChecksum(block, lengths[i]);
        if (ProgressCallback != nullptr) ProgressCallback(blockSize * i, imageSize);
        unsigned char trailer[2] = {static_cast<unsigned char>(checksum >> 8),
                                    static_cast<unsigned char>(checksum)};
        link.Send(block, lengths[i]);
        link.Send(trailer, 2);
        link.Receive(reply, 3, timeout);
        if (reply[0] != kAccepted) {
            link.Disconnect();
            return false;
        }
    }
    if (ProgressCallback != nullptr) ProgressCallback(imageSize, imageSize);
    link.Disconnect();
    return true;
}
