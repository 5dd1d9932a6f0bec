// The bootloader protocol on a link, with the connection handled in one of two ways: the public
// Bootloader opens and closes the port around every operation (BootSession in per-operation
// mode), while the quelworks command keeps one connection for a whole flash (BootConnection).
// Both run the same request/reply code below. Not installed.
#ifndef QUELWORKS_BOOTLOADER_BOOT_SESSION_H
#define QUELWORKS_BOOTLOADER_BOOT_SESSION_H

#include <string>

#include "quelworks/bootloader/bootloader.h"
#include "quelworks/serial/rs232.h"

namespace quelworks {

// What a conversation learns of the device and needs to go on: references to the fields of the
// object that owns them (a Bootloader, or a BootConnection).
struct BootFields {
    int& timeout;
    bool& deviceInfoAvailable;
    int& deviceType;
    int& subDeviceType;
    int& revision;
    int& firmwareVersion;
    int& bootloaderVersion;
    char*& serialNumber;       // malloc'ed, owned by the holder of the fields
    char*& deviceDescription;  // likewise
    int& maxBaudrate;
    int& blockSize;
    int& programParameter2;
    Bootloader::DeviceProgrammingState& programMode;
    void (*&progressCallback)(int done, int total);
};

// The request/reply exchanges of every bootloader operation, run on `link`. With
// `connectPerOperation` each operation connects and disconnects at the same points as the public
// Bootloader always has; without it the link must already be open and stays open.
class BootSession {
public:
    BootSession(RS232& link, BootFields fields, bool connectPerOperation)
        : link_(link), f_(fields), connectPerOperation_(connectPerOperation) {}

    // Reads until the line has been quiet for a moment (bounded in time and bytes).
    void Drain();
    bool AcquireDeviceInfo();
    // With one connection, the open port is configured at the new rate at once.
    bool SwitchToMaxBaudrate();
    bool EnterBootloader();
    bool UpdateFirmware(int value, const char* fileName);

private:
    bool connect();
    void disconnect();
    bool acquireDataField(unsigned char command, int replyLength, int* value);
    bool acquireDeviceType();
    bool acquireProgramMode();
    bool acquireSerialNumber();
    bool acquireProgramParameters();
    bool acquireDeviceDescription();

    RS232& link_;
    BootFields f_;
    bool connectPerOperation_;
};

// One connection to a device's bootloader for a whole flash: opened once, then drained, the
// identity read, optionally switched to the top baud rate, brought into programming mode and
// the image written, all on the same open port; closed when the object goes. The bytes on the
// line are those of the public Bootloader's operations in the same order.
class BootConnection {
public:
    // Opens `port` at 9600 baud; IsOpen() tells whether that worked.
    BootConnection(const char* port, int timeoutMs);
    ~BootConnection();
    BootConnection(const BootConnection&) = delete;
    BootConnection& operator=(const BootConnection&) = delete;

    bool IsOpen() const;
    // Closes the port now (also done by the destructor).
    void Close();

    void Drain();
    bool AcquireDeviceInfo();
    bool SwitchToMaxBaudrate();
    bool EnterBootloader();
    bool UpdateFirmware(int value, const char* fileName);

    // Called before each block and after the last one, as Bootloader::ProgressCallback.
    void (*ProgressCallback)(int done, int total) = nullptr;

    // The device's identity as last read (valid when DeviceInfoAvailable()).
    bool DeviceInfoAvailable() const { return deviceInfoAvailable_; }
    int DeviceType() const { return deviceType_; }
    int SubDeviceType() const { return subDeviceType_; }
    int Revision() const { return revision_; }
    int FirmwareVersion() const { return firmwareVersion_; }
    int BootloaderVersion() const { return bootloaderVersion_; }
    int MaxBaudrate() const { return maxBaudrate_; }
    bool InProgramMode() const { return programMode_ == Bootloader::InProgramMode; }
    std::string SerialNumber() const { return serialNumber_ ? serialNumber_ : ""; }
    std::string Description() const { return deviceDescription_ ? deviceDescription_ : ""; }
    // The block size the device asked for (0 until known).
    int BlockSize() const { return blockSize_; }
    // The baud rate the port is configured at.
    std::uint32_t Baudrate() const { return link_.Baudrate; }

private:
    BootSession session();

    RS232 link_;
    bool open_ = false;
    int timeout_;
    bool deviceInfoAvailable_ = false;
    int deviceType_ = 0;
    int subDeviceType_ = 0;
    int revision_ = 0;
    int firmwareVersion_ = 0;
    int bootloaderVersion_ = 0;
    char* serialNumber_ = nullptr;
    char* deviceDescription_ = nullptr;
    int maxBaudrate_ = 9600;
    int blockSize_ = 0;
    int programParameter2_ = 0;
    Bootloader::DeviceProgrammingState programMode_ = Bootloader::NotInProgramMode;
};

}  // namespace quelworks

#endif  // QUELWORKS_BOOTLOADER_BOOT_SESSION_H
