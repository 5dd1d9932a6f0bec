#include "device.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace quelworks::devsim {

namespace {

// Largest image the device accepts; a larger header is refused instead of reserving the memory.
constexpr std::uint32_t kMaxImageSize = 64u * 1024u * 1024u;

void putBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

std::uint32_t getBigEndian(const std::uint8_t* in, int bytes) {
    std::uint32_t value = 0;
    for (int i = 0; i < bytes; ++i) value = (value << 8) | in[i];
    return value;
}

std::string hex(const std::vector<std::uint8_t>& bytes, std::size_t limit = 16) {
    std::string text;
    char part[4];
    for (std::size_t i = 0; i < bytes.size() && i < limit; ++i) {
        std::snprintf(part, sizeof part, i ? " %02x" : "%02x", bytes[i]);
        text += part;
    }
    if (bytes.size() > limit) text += " ...";
    return text;
}

const char* requestName(std::uint8_t byte) {
    switch (byte) {
        case request::DeviceType:
            return "device type";
        case request::SubType:
            return "sub-type";
        case request::Revision:
            return "revision";
        case request::FirmwareVersion:
            return "firmware version";
        case request::BootloaderVersion:
            return "bootloader version";
        case request::ProgramMode:
            return "program mode";
        case request::SerialNumber:
            return "serial number";
        case request::MaxBaudrate:
            return "maximum baud rate";
        case request::SwitchBaudrate:
            return "switch to maximum baud rate";
        case request::Description:
            return "description";
        case request::EnterOrHeader:
            return "enter bootloader";
        case request::ProgramParameters:
            return "program parameters";
        default:
            return "unknown request";
    }
}

}  // namespace

Device::Device(DeviceConfig config) : config_(std::move(config)) {
    programMode_ = config_.startInProgramMode;
    wrongEchoesLeft_ = config_.wrongEchoTimes;
}

std::uint16_t Device::checksum(const std::uint8_t* data, std::size_t size) {
    std::uint16_t crc = 0xFFFF;
    for (std::size_t i = 0; i < size; ++i) {
        crc ^= static_cast<std::uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 0x8000) ? static_cast<std::uint16_t>((crc << 1) ^ 0x1021)
                                 : static_cast<std::uint16_t>(crc << 1);
        }
    }
    return crc;
}

Clock::duration Device::byteTime() const {
    std::uint32_t rate = config_.lineFollowsBaud ? baudrate_ : config_.lineRate;
    if (rate == 0) return Clock::duration::zero();
    // Ten bit times per byte: start bit, eight data bits, stop bit.
    return std::chrono::duration_cast<Clock::duration>(std::chrono::nanoseconds(10'000'000'000LL) /
                                                       static_cast<long long>(rate));
}

void Device::receive(const std::uint8_t* data, std::size_t size, Clock::time_point now) {
    if (!started_) {
        start_ = now;
        started_ = true;
    }
    // Each byte is handled at once, stamped with the moment it will have crossed the line: every
    // decision depends only on those stamps, so nothing needs to wake up until a reply is due.
    for (std::size_t i = 0; i < size; ++i) {
        Clock::time_point done = std::max(now, inputLineFree_) + byteTime();
        inputLineFree_ = done;
        if (received_.size() < recordLimit_) received_.push_back(data[i]);
        handle(data[i], done);
    }
}

std::vector<std::uint8_t> Device::transmit(Clock::time_point now) {
    std::vector<std::uint8_t> out;
    while (!output_.empty() && output_.front().at <= now) {
        out.push_back(output_.front().byte);
        output_.pop_front();
    }
    return out;
}

std::optional<Clock::time_point> Device::nextEvent() const {
    if (output_.empty()) return std::nullopt;
    return output_.front().at;
}

void Device::trace(const std::string& line) const {
    if (!trace_) return;
    double seconds = std::chrono::duration<double>(lastByteAt_ - start_).count();
    char stamp[32];
    std::snprintf(stamp, sizeof stamp, "%9.3f  ", seconds);
    trace_(stamp + line);
}

void Device::reply(std::uint8_t requestByte, std::vector<std::uint8_t> bytes,
                   Clock::time_point at) {
    if (requestByte == config_.wrongEchoFor && wrongEchoesLeft_ != 0 && !bytes.empty()) {
        bytes[0] ^= 0x80;
        if (wrongEchoesLeft_ > 0) --wrongEchoesLeft_;
    }
    Clock::time_point t = at + config_.replyDelay;
    for (std::uint8_t byte : bytes) {
        Clock::time_point done = std::max(t, outputLineFree_) + byteTime();
        outputLineFree_ = done;
        output_.push_back({byte, done});
    }
}

void Device::handle(std::uint8_t byte, Clock::time_point at) {
    if (state_ != State::Idle && at - lastByteAt_ > config_.resyncGap) {
        trace("host paused: dropping an incomplete " +
              std::string(state_ == State::Block ? "block" : "request"));
        state_ = State::Idle;
    }
    lastByteAt_ = at;
    if (config_.silent) {
        char line[64];
        std::snprintf(line, sizeof line, "%02x  (silent, no answer)", byte);
        trace(line);
        return;
    }
    switch (state_) {
        case State::Idle:
            handleRequest(byte, at);
            break;
        case State::EnterText: {
            std::size_t position = collected_.size();
            if (static_cast<char>(byte) != kEnterProgmodeText[position]) {
                trace("enter text broken off after " + std::to_string(position) + " characters");
                state_ = State::Idle;
                handleRequest(byte, at);
                break;
            }
            collected_.push_back(byte);
            if (collected_.size() == sizeof kEnterProgmodeText - 1) {
                trace("\"Enter Progmode\\r\\n\"");
                state_ = State::Idle;
                entering_ = true;
                pollsLeft_ = config_.pollsBeforeProgramMode;
            }
            break;
        }
        case State::Header:
            collected_.push_back(byte);
            if (collected_.size() == 10) handleHeader(at);
            break;
        case State::Block: {
            collected_.push_back(byte);
            std::uint32_t offset = nextBlock_ * config_.blockSize;
            std::uint32_t length = std::min(config_.blockSize, imageSize_ - offset);
            if (collected_.size() == length + 2u) handleBlock(at);
            break;
        }
    }
}

void Device::handleRequest(std::uint8_t byte, Clock::time_point at) {
    std::vector<std::uint8_t> out{byte};
    switch (byte) {
        case request::DeviceType:
            if (config_.oneByteType) {
                out.push_back(static_cast<std::uint8_t>(config_.deviceType));
            } else {
                putBigEndian(out, config_.deviceType, 2);
            }
            break;
        case request::SubType:
            putBigEndian(out, config_.subType, 2);
            break;
        case request::Revision:
            putBigEndian(out, config_.revision, 2);
            break;
        case request::FirmwareVersion:
            putBigEndian(out, config_.firmwareVersion, 2);
            break;
        case request::BootloaderVersion:
            putBigEndian(out, config_.bootloaderVersion, 2);
            break;
        case request::ProgramMode:
            if (entering_) {
                if (pollsLeft_ > 0) {
                    --pollsLeft_;
                } else {
                    entering_ = false;
                    programMode_ = true;
                }
            }
            out.push_back(programMode_ ? kAccept : 0x00);
            break;
        case request::SerialNumber:
            for (std::size_t i = 0; i < 8; ++i) {
                out.push_back(i < config_.serialNumber.size()
                                  ? static_cast<std::uint8_t>(config_.serialNumber[i])
                                  : 0x00);
            }
            break;
        case request::MaxBaudrate:
            putBigEndian(out, config_.maxBaudrate, 4);
            break;
        case request::SwitchBaudrate:
            out.push_back(kAccept);
            break;
        case request::Description:
            out.reserve(config_.description.size() + 2);
            for (char c : config_.description) out.push_back(static_cast<std::uint8_t>(c));
            if (!config_.unterminatedDescription) out.push_back(0x00);
            break;
        case request::ProgramParameters:
            putBigEndian(out, config_.blockSize, 4);
            putBigEndian(out, config_.programParameter2, 4);
            break;
        case request::EnterOrHeader:
            if (programMode_) {
                state_ = State::Header;
                collected_.assign(1, byte);
                return;
            }
            if (config_.neverEnterProgramMode) {
                trace("1d  enter bootloader (ignored)");
            } else if (config_.bootloaderVersion > 1) {
                trace("1d  enter bootloader (waiting for the text)");
                state_ = State::EnterText;
                collected_.clear();
            } else {
                trace("1d  enter bootloader");
                entering_ = true;
                pollsLeft_ = config_.pollsBeforeProgramMode;
            }
            return;
        default: {
            char line[64];
            std::snprintf(line, sizeof line, "%02x  unknown request, no answer", byte);
            trace(line);
            return;
        }
    }
    reply(byte, out, at);
    char line[64];
    std::snprintf(line, sizeof line, "%02x  %s -> ", byte, requestName(byte));
    trace(line + hex(out) + (config_.wrongEchoFor == byte ? " (echo spoiled)" : ""));
    if (byte == request::SwitchBaudrate) baudrate_ = config_.maxBaudrate;
}

void Device::handleHeader(Clock::time_point at) {
    const std::uint8_t* h = collected_.data();
    std::uint32_t count = h[1];
    std::uint32_t size = getBigEndian(h + 2, 4);
    std::uint32_t last = getBigEndian(h + 6, 2);
    std::uint32_t value = getBigEndian(h + 8, 2);
    std::uint32_t bs = config_.blockSize;
    bool ok = !config_.refuseHeader && size > 0 && size <= kMaxImageSize && bs > 0;
    std::uint32_t blocks = 0;
    if (ok) {
        blocks = (size + bs - 1) / bs;
        std::uint32_t lastLength = size - (blocks - 1) * bs;
        ok = (blocks & 0xFF) == count && (lastLength & 0xFFFF) == last;
    }
    char line[160];
    std::snprintf(line, sizeof line,
                  "%s  header: %u bytes, block count %u, last block %u, value %u%s",
                  hex(collected_).c_str(), size, count, last, value, ok ? "" : " (refused)");
    trace(line);
    reply(request::EnterOrHeader, {request::EnterOrHeader, ok ? kAccept : kRefuse}, at);
    collected_.clear();
    if (!ok) {
        state_ = State::Idle;
        return;
    }
    state_ = State::Block;
    imageSize_ = size;
    blockCount_ = blocks;
    nextBlock_ = 0;
    incoming_.clear();
    incoming_.reserve(std::min<std::uint32_t>(size, 1u << 20));
}

void Device::handleBlock(Clock::time_point at) {
    std::size_t length = collected_.size() - 2;
    std::uint16_t sent = static_cast<std::uint16_t>(getBigEndian(collected_.data() + length, 2));
    std::uint16_t expected = checksum(collected_.data(), length);
    std::uint32_t number = nextBlock_ + 1;
    bool refusedOnPurpose = config_.rejectBlock > 0 && number == std::uint32_t(config_.rejectBlock);
    bool ok = sent == expected && !refusedOnPurpose;
    std::uint8_t hi = static_cast<std::uint8_t>(number >> 8),
                 lo = static_cast<std::uint8_t>(number);
    reply(0, {ok ? kAccept : kRefuse, hi, lo}, at);

    char line[128];
    std::snprintf(line, sizeof line, "block %u/%u: %zu bytes, checksum %04x %s%s", number,
                  blockCount_, length, sent, sent == expected ? "ok" : "WRONG",
                  ok ? "" : (refusedOnPurpose ? ", refused (fault)" : ", refused"));
    trace(line);
    if (ok) incoming_.insert(incoming_.end(), collected_.begin(), collected_.begin() + length);
    collected_.clear();
    if (!ok) {
        ++blocksRefused_;
        state_ = State::Idle;
        return;
    }
    ++blocksAccepted_;
    ++nextBlock_;
    if (nextBlock_ == blockCount_) {
        image_ = incoming_;
        ++imagesWritten_;
        state_ = State::Idle;
        trace("image complete: " + std::to_string(image_.size()) + " bytes");
    }
}

}  // namespace quelworks::devsim
