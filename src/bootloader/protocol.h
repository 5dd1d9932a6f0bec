// The request bytes and marks of the device's bootloader protocol, shared by the Bootloader
// client and the internal helpers the quelworks command uses. (The simulated device keeps its own
// copy on purpose: it is an independent model of the device.)
#ifndef QUELWORKS_BOOTLOADER_PROTOCOL_H
#define QUELWORKS_BOOTLOADER_PROTOCOL_H

namespace quelworks::protocol {

// Request bytes; every reply starts with the echo of its request.
constexpr unsigned char kDeviceType = 0x11;
constexpr unsigned char kSubType = 0x14;
constexpr unsigned char kRevision = 0x15;
constexpr unsigned char kFirmwareVersion = 0x16;
constexpr unsigned char kBootloaderVersion = 0x17;
constexpr unsigned char kProgramMode = 0x18;
constexpr unsigned char kSerialNumber = 0x19;
constexpr unsigned char kMaxBaudrate = 0x1A;
constexpr unsigned char kSwitchBaudrate = 0x1B;
constexpr unsigned char kDescription = 0x1C;
constexpr unsigned char kEnterBootloader = 0x1D;  // also the first byte of the firmware header
constexpr unsigned char kProgramParameters = 0x1F;

// The device's acceptance mark (and, after kProgramMode, "in programming mode").
constexpr unsigned char kAccepted = 0x20;

// Length of the reply to kProgramParameters: the echo, the block size (4 bytes, big-endian)
// and a second parameter (4 bytes).
constexpr int kProgramParametersReplyLength = 9;

}  // namespace quelworks::protocol

#endif  // QUELWORKS_BOOTLOADER_PROTOCOL_H
