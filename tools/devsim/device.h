// The simulated device: the device side of the bootloader protocol as a transport-free state
// machine. Bytes from the host go in with the time they arrived, bytes for the host come out once
// their time has come; the caller owns the clock, so the same model runs on a pty (the
// quelworks-devsim program), in a test thread, or against a fake clock.
#ifndef QUELWORKS_TOOLS_DEVSIM_DEVICE_H
#define QUELWORKS_TOOLS_DEVSIM_DEVICE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace quelworks::devsim {

using Clock = std::chrono::steady_clock;

// Request bytes of the bootloader protocol.
namespace request {
constexpr std::uint8_t DeviceType = 0x11;
constexpr std::uint8_t SubType = 0x14;
constexpr std::uint8_t Revision = 0x15;
constexpr std::uint8_t FirmwareVersion = 0x16;
constexpr std::uint8_t BootloaderVersion = 0x17;
constexpr std::uint8_t ProgramMode = 0x18;
constexpr std::uint8_t SerialNumber = 0x19;
constexpr std::uint8_t MaxBaudrate = 0x1A;
constexpr std::uint8_t SwitchBaudrate = 0x1B;
constexpr std::uint8_t Description = 0x1C;
constexpr std::uint8_t EnterOrHeader = 0x1D;
constexpr std::uint8_t ProgramParameters = 0x1F;
}  // namespace request

constexpr std::uint8_t kAccept = 0x20;  // the device's general acceptance mark
constexpr std::uint8_t kRefuse = 0x15;  // what this device answers instead when it refuses

// The text that bootloader versions above 1 expect after the enter request.
constexpr char kEnterProgmodeText[] = "Enter Progmode\r\n";

struct DeviceConfig {
    // Identity.
    std::uint16_t deviceType = 0x0A02;
    bool oneByteType = false;  // answer the type request with one data byte (older devices)
    std::uint16_t subType = 3;
    std::uint16_t revision = 7;
    std::uint16_t firmwareVersion = 0x0105;
    std::uint16_t bootloaderVersion = 2;
    std::string serialNumber = "QW000042";  // sent as 8 bytes, cut or padded with zero bytes
    std::string description = "quelworks simulated device";
    std::uint32_t maxBaudrate = 115200;
    std::uint32_t blockSize = 256;
    std::uint32_t programParameter2 = 0;
    bool startInProgramMode = false;

    // Faults.
    int wrongEchoFor = -1;    // request byte whose reply starts with a wrong first byte (-1: none)
    int wrongEchoTimes = -1;  // how many of those replies are wrong (negative: all of them)
    bool silent = false;      // receives everything, answers nothing
    std::chrono::microseconds replyDelay{0};  // extra time before every reply
    int rejectBlock = 0;                      // refuse this block (1 = the first one; 0: none)
    bool neverEnterProgramMode = false;       // ignores the enter request
    int pollsBeforeProgramMode = 0;        // program-mode queries answered "not yet" after entering
    bool unterminatedDescription = false;  // the description ends without its zero byte
    bool refuseHeader = false;             // refuse every firmware header

    // The line. With a line rate every byte takes 10 bit times (8N1) to cross, in both directions.
    std::uint32_t lineRate = 0;    // fixed rate in baud (0: bytes cross at once)
    bool lineFollowsBaud = false;  // use the device's current baud rate instead (9600 at start)
    // A half-received header or block is dropped when the host pauses longer than this.
    std::chrono::milliseconds resyncGap{1000};
};

class Device {
public:
    explicit Device(DeviceConfig config);

    const DeviceConfig& config() const { return config_; }
    // Changes take effect from the next byte the device handles.
    DeviceConfig& config() { return config_; }

    // Bytes from the host that started to cross the line at `now`. With an emulated line they
    // count as received one byte time after another.
    void receive(const std::uint8_t* data, std::size_t size, Clock::time_point now);
    // The bytes the device has finished sending by `now`.
    std::vector<std::uint8_t> transmit(Clock::time_point now);
    // When the next reply byte will have crossed the line; empty when nothing is on its way.
    std::optional<Clock::time_point> nextEvent() const;

    // The bytes the host sent, in order, since the last clearReceived(): recorded only after
    // recordReceived(limit), and then at most `limit` of them (later ones are not kept), so a
    // host that never stops sending cannot make the device grow without bound.
    void recordReceived(std::size_t limit) { recordLimit_ = limit; }
    const std::vector<std::uint8_t>& received() const { return received_; }
    void clearReceived() { received_.clear(); }

    bool inProgramMode() const { return programMode_; }
    std::uint32_t baudrate() const { return baudrate_; }
    // The last image that arrived complete, and how many have so far.
    const std::vector<std::uint8_t>& image() const { return image_; }
    int imagesWritten() const { return imagesWritten_; }
    // Blocks accepted and refused since start.
    int blocksAccepted() const { return blocksAccepted_; }
    int blocksRefused() const { return blocksRefused_; }

    // Receives one line per request handled (for --trace). May be empty.
    void setTrace(std::function<void(const std::string&)> trace) { trace_ = std::move(trace); }

    // The checksum the device expects after each block (CRC-16, polynomial 0x1021, start 0xFFFF,
    // most significant bit first), computed bit by bit on its own.
    static std::uint16_t checksum(const std::uint8_t* data, std::size_t size);

private:
    enum class State { Idle, EnterText, Header, Block };

    struct Timed {
        std::uint8_t byte;
        Clock::time_point at;
    };

    Clock::duration byteTime() const;
    void handle(std::uint8_t byte, Clock::time_point at);
    void handleRequest(std::uint8_t byte, Clock::time_point at);
    void handleHeader(Clock::time_point at);
    void handleBlock(Clock::time_point at);
    void reply(std::uint8_t request, std::vector<std::uint8_t> bytes, Clock::time_point at);
    void trace(const std::string& line) const;

    DeviceConfig config_;
    std::deque<Timed> output_;  // bytes on their way out, with the time they are complete
    Clock::time_point inputLineFree_{};
    Clock::time_point outputLineFree_{};
    Clock::time_point lastByteAt_{};
    std::vector<std::uint8_t> received_;
    std::size_t recordLimit_ = 0;

    State state_ = State::Idle;
    std::vector<std::uint8_t> collected_;  // the header, block or text being collected
    bool programMode_ = false;
    bool entering_ = false;  // the enter request was accepted; polls decide when
    int pollsLeft_ = 0;
    int wrongEchoesLeft_ = 0;
    std::uint32_t baudrate_ = 9600;

    // The image being written.
    std::uint32_t imageSize_ = 0;
    std::uint32_t blockCount_ = 0;
    std::uint32_t nextBlock_ = 0;
    std::vector<std::uint8_t> incoming_;
    std::vector<std::uint8_t> image_;
    int imagesWritten_ = 0;
    int blocksAccepted_ = 0;
    int blocksRefused_ = 0;

    std::function<void(const std::string&)> trace_;
    Clock::time_point start_{};
    bool started_ = false;
};

}  // namespace quelworks::devsim

#endif  // QUELWORKS_TOOLS_DEVSIM_DEVICE_H
