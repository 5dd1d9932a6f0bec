#include "bootloader/boot_session.h"

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
#include "serial/link_settings.h"

namespace quelworks {

namespace {

using namespace protocol;

// Bootloaders above version 1 want this text after the enter request.
char kEnterProgmodeText[] = "Enter Progmode\r\n";

constexpr int kDrainTimeoutMs = 100;
// A device that never stops sending (an application that logs without pause) must not hold the
// drain forever: it ends after this much time or this many bytes, whichever comes first. A
// device that has said what it had to say goes quiet long before either.
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

}  // namespace

bool BootSession::connect() {
    if (connectPerOperation_) return link_.Connect();
    return link_.IsConnected();
}

void BootSession::disconnect() {
    if (connectPerOperation_) link_.Disconnect();
}

void BootSession::Drain() {
    // Whatever the device still had to say from an earlier conversation would be read as the
    // echo of the first query: read until the line stays quiet.
    // Byte by byte with the same time-outs as a read of everything pending, so the line counts
    // as quiet exactly as before, but with a bound on time and bytes.
    if (connect()) {
        const auto until = std::chrono::steady_clock::now() + kDrainMaxTime;
        unsigned char byte = 0;
        for (long drained = 0; drained < kDrainMaxBytes && link_.Receive(&byte, 1, kDrainTimeoutMs);
             ++drained) {
            if (std::chrono::steady_clock::now() >= until) break;
        }
    }
    disconnect();
}

bool BootSession::acquireDataField(unsigned char command, int replyLength, int* value) {
    if (replyLength < 1) return false;
    // Bytes that do not arrive read as zero; only the echo decides whether the reply counts.
    std::vector<unsigned char> reply(static_cast<std::size_t>(replyLength), 0);
    unsigned char request = command;
    link_.Send(&request, 1);
    link_.Receive(reply.data(), replyLength, f_.timeout);
    if (reply[0] != command) return false;
    *value = static_cast<int>(bigEndian(reply.data() + 1, replyLength - 1));
    return true;
}

bool BootSession::acquireDeviceType() {
    if (acquireDataField(kDeviceType, 3, &f_.deviceType)) return true;
    // Devices that report their type in one byte.
    return acquireDataField(kDeviceType, 2, &f_.deviceType);
}

bool BootSession::acquireProgramMode() {
    int state = 0;
    bool ok = acquireDataField(kProgramMode, 2, &state);
    // A device that does not answer is not known to be in programming mode.
    f_.programMode =
        ok && state == kAccepted ? Bootloader::InProgramMode : Bootloader::NotInProgramMode;
    return ok;
}

bool BootSession::acquireSerialNumber() {
    unsigned char reply[9] = {};
    unsigned char request = kSerialNumber;
    link_.Send(&request, 1);
    link_.Receive(reply, 9, f_.timeout);
    if (reply[0] != kSerialNumber) return false;
    char* serial = static_cast<char*>(std::malloc(9));
    if (serial == nullptr) return false;
    // Eight characters at most; a zero byte ends the text early and the rest is zero-filled.
    std::strncpy(serial, reinterpret_cast<const char*>(reply + 1), 8);
    serial[8] = '\0';
    std::free(f_.serialNumber);
    f_.serialNumber = serial;
    return true;
}

bool BootSession::acquireProgramParameters() {
    unsigned char reply[kProgramParametersReplyLength] = {};
    unsigned char request = kProgramParameters;
    link_.Send(&request, 1);
    link_.Receive(reply, kProgramParametersReplyLength, f_.timeout);
    if (reply[0] != kProgramParameters) return false;
    f_.blockSize = static_cast<int>(bigEndian(reply + 1, 4));
    f_.programParameter2 = static_cast<int>(bigEndian(reply + 5, 4));
    return true;
}

bool BootSession::acquireDeviceDescription() {
    std::string text;
    unsigned char request = kDescription;
    link_.Send(&request, 1);
    bool terminated = false;
    for (;;) {
        unsigned char byte = 'a';
        if (!link_.Receive(&byte, 1, f_.timeout)) break;
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
            std::free(f_.deviceDescription);
            f_.deviceDescription = description;
        }
    }
    return terminated;
}

bool BootSession::AcquireDeviceInfo() {
    bool result = false;
    if (!connect()) {
        f_.subDeviceType = 0;
    } else if (!acquireDataField(kBootloaderVersion, 3, &f_.bootloaderVersion) ||
               !acquireDeviceType()) {
        f_.subDeviceType = 0;
    } else {
        bool subTypeOk = true;
        if (f_.deviceType != 0) {
            subTypeOk = acquireDataField(kSubType, 3, &f_.subDeviceType);
        } else {
            f_.subDeviceType = 0;
        }
        // The order is fixed: it is what the device firmware has always seen.
        result = subTypeOk && acquireDataField(kFirmwareVersion, 3, &f_.firmwareVersion) &&
                 acquireDataField(kMaxBaudrate, 5, &f_.maxBaudrate) &&
                 acquireDataField(kRevision, 3, &f_.revision) && acquireSerialNumber() &&
                 acquireProgramMode() && acquireDeviceDescription();
        if (result && f_.programMode == Bootloader::InProgramMode) {
            result = acquireProgramParameters();
        }
    }
    f_.deviceInfoAvailable = result;
    disconnect();
    return result;
}

bool BootSession::SwitchToMaxBaudrate() {
    if (!connect()) return false;
    unsigned char request = kSwitchBaudrate;
    unsigned char reply[2] = {};
    link_.Send(&request, 1);
    link_.Receive(reply, 2, f_.timeout);
    disconnect();
    if (reply[0] != kSwitchBaudrate || reply[1] != kAccepted) return false;
    link_.Baudrate = static_cast<std::uint32_t>(f_.maxBaudrate);
    // Per operation, the next Connect opens the port at the new rate; on one connection the
    // open port changes its rate now, without a pause after the acknowledgement.
    if (!connectPerOperation_) return LinkSettings::ApplyBaudrate(link_);
    return true;
}

bool BootSession::EnterBootloader() {
    if (f_.deviceInfoAvailable && f_.programMode == Bootloader::InProgramMode) return true;
    // The poll interval is a tenth of the time-out; below 10 ms it would be zero.
    if (f_.timeout < kMinimumTimeoutMs) return false;
    const int interval = f_.timeout / 10;

    connect();
    unsigned char request = kEnterBootloader;
    link_.Send(&request, 1);
    if (f_.bootloaderVersion > 1) link_.Send(kEnterProgmodeText);

    // timeout / interval + 2 polls at most, each after its pause.
    for (int attempt = 0;; ++attempt) {
        sleepMs(interval);
        if (attempt > f_.timeout / interval + 1) {
            disconnect();
            return false;
        }
        acquireProgramMode();
        if (f_.programMode == Bootloader::InProgramMode) break;
    }

    // The bootloader needs a moment before it answers the next query.
    sleepMs(kSettleAfterEnterMs);
    bool ok = acquireProgramParameters();
    disconnect();
    return ok && f_.programMode == Bootloader::InProgramMode;
}

bool BootSession::UpdateFirmware(int value, const char* fileName) {
    if (!f_.deviceInfoAvailable || f_.programMode != Bootloader::InProgramMode) return false;
    // A zero or negative block size would never cut the image.
    const int blockSize = f_.blockSize;
    if (blockSize <= 0 || fileName == nullptr) return false;

    // The name's meaning (ANSI code page or UTF-8) is the platform layer's business. Only a
    // regular file is taken: a folder could report a size and be read as zeros, a FIFO would
    // block.
    std::FILE* file = detail::openRegularFile(fileName);
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

    connect();
    link_.Send(header, 10);
    link_.Receive(reply, 2, f_.timeout);
    if (reply[0] != kEnterBootloader || reply[1] != kAccepted) {
        disconnect();
        return false;
    }

    for (int i = 0; i < blockCount; ++i) {
        unsigned char* block = image.data() + offsets[i];
        CRC_CCITT crc(CRC_CCITT::AllOnes);
        unsigned short checksum = crc.ComputeChecksum(block, lengths[i]);
        if (f_.progressCallback != nullptr) f_.progressCallback(blockSize * i, imageSize);
        unsigned char trailer[2] = {static_cast<unsigned char>(checksum >> 8),
                                    static_cast<unsigned char>(checksum)};
        link_.Send(block, lengths[i]);
        link_.Send(trailer, 2);
        link_.Receive(reply, 3, f_.timeout);
        if (reply[0] != kAccepted) {
            disconnect();
            return false;
        }
    }
    if (f_.progressCallback != nullptr) f_.progressCallback(imageSize, imageSize);
    disconnect();
    return true;
}

// ---- one connection for a whole flash ---------------------------------------------------------

BootConnection::BootConnection(const char* port, int timeoutMs) : timeout_(timeoutMs) {
    if (port != nullptr && port[0] != '\0') {
        link_.PortName(port);
        link_.Baudrate = 9600;
        // A rejected configuration leaves the link looking connected: the result decides.
        open_ = link_.Connect();
    }
}

BootConnection::~BootConnection() {
    std::free(serialNumber_);
    std::free(deviceDescription_);
    link_.Disconnect();
}

bool BootConnection::IsOpen() const {
    return open_;
}

void BootConnection::Close() {
    link_.Disconnect();
    open_ = false;
}

BootSession BootConnection::session() {
    return BootSession(
        link_,
        BootFields{timeout_, deviceInfoAvailable_, deviceType_, subDeviceType_, revision_,
                   firmwareVersion_, bootloaderVersion_, serialNumber_, deviceDescription_,
                   maxBaudrate_, blockSize_, programParameter2_, programMode_, ProgressCallback},
        false);
}

// Without an open port nothing is sent and every operation fails.
void BootConnection::Drain() {
    if (open_) session().Drain();
}

bool BootConnection::AcquireDeviceInfo() {
    return open_ && session().AcquireDeviceInfo();
}

bool BootConnection::SwitchToMaxBaudrate() {
    return open_ && session().SwitchToMaxBaudrate();
}

bool BootConnection::EnterBootloader() {
    return open_ && session().EnterBootloader();
}

bool BootConnection::UpdateFirmware(int value, const char* fileName) {
    return open_ && session().UpdateFirmware(value, fileName);
}

}  // namespace quelworks
