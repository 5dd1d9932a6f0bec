// The simulated device reading arbitrary host bytes: whatever a control program under test sends,
// the device must neither crash nor hold on to unbounded memory. The first bytes choose the
// device's settings, the rest arrives in bursts at advancing times.
#include <chrono>
#include <cstddef>
#include <cstdint>

// The device model is a tool's source, not part of the library: compiled into the harness.
#include "../tools/devsim/device.cpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace quelworks::devsim;
    if (size < 4) return 0;
    DeviceConfig config;
    config.blockSize = 1u + data[0] % 64u;
    config.startInProgramMode = (data[1] & 1) != 0;
    config.oneByteType = (data[1] & 2) != 0;
    config.pollsBeforeProgramMode = (data[1] >> 2) & 3;
    config.lineRate = (data[1] & 16) ? 115200 : 0;
    config.lineFollowsBaud = (data[1] & 32) != 0;
    config.bootloaderVersion = data[2] & 3;
    config.rejectBlock = data[3] & 7;
    Device device(config);

    Clock::time_point now{};
    std::size_t offset = 4;
    while (offset < size) {
        // A burst: one byte gives its length and the pause before it.
        std::uint8_t head = data[offset++];
        std::size_t length = 1 + (head & 0x1F);
        if (length > size - offset) length = size - offset;
        now += std::chrono::milliseconds((head >> 5) * 300);
        device.receive(data + offset, length, now);
        offset += length;
        device.transmit(now);
    }
    device.transmit(now + std::chrono::hours(1));
    if (device.nextEvent()) __builtin_trap();  // everything due must have gone out
    return 0;
}
