/// \file
/// Bootloader: the client side of the device's bootloader protocol. Reads the device's identity,
/// switches the link to the device's highest baud rate, brings the device into programming mode
/// and writes a firmware image in checksummed blocks.
///
/// Every public operation is a self-contained exchange over the object's own RS232 link: connect,
/// request/reply pairs, disconnect. The port is closed between operations.
#ifndef QUELWORKS_BOOTLOADER_BOOTLOADER_H
#define QUELWORKS_BOOTLOADER_BOOTLOADER_H

#include <type_traits>

#include "quelworks/export.h"
#include "quelworks/serial/rs232.h"

/// Client of the device's bootloader: identity, top baud rate, programming mode, firmware update.
/// Each operation connects, exchanges its requests and disconnects again.
class QUELWORKS_API Bootloader {
public:
    /// What the device runs: its bootloader or its application.
    enum DeviceProgrammingState {
        InProgramMode = 0,     ///< the bootloader is active and accepts a firmware image
        NotInProgramMode = 1,  ///< the device's application runs
    };

    /// Called by UpdateFirmware before each block with (bytes sent so far, image size) and once
    /// after the last accepted block with (image size, image size). May be null.
    void (*ProgressCallback)(int done, int total);

    /// Each constructor names the port, drains whatever the device still had to say and, unless
    /// told otherwise, reads the device's identity (AcquireDeviceInfo). `timeout` is the time-out
    /// in milliseconds of every receive (default 1000). The drain reads until the line has been
    /// quiet for a moment, but at most 5 seconds and 1 MiB, so a device that never stops sending
    /// cannot hold the constructor; a device description is read up to 64 KiB (a longer one is
    /// cut off and counts as unterminated).
    Bootloader(char* portName, int timeout, bool acquireDeviceInfo);
    /// Reads the identity; see the first constructor.
    Bootloader(char* portName, int timeout);
    /// A time-out of 1000 ms; see the first constructor.
    Bootloader(char* portName, bool acquireDeviceInfo);
    /// A time-out of 1000 ms, identity read; see the first constructor.
    Bootloader(char* portName);
    /// The same for a name given as const text (a string literal, std::string::c_str()); the name
    /// is only read. Templates, so that a null pointer still picks the overloads above.
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    Bootloader(Text portName, int timeoutMs, bool acquireDeviceInfo)
        : Bootloader(const_cast<char*>(portName), timeoutMs, acquireDeviceInfo) {}
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// Reads the identity; for const text.
    Bootloader(Text portName, int timeoutMs) : Bootloader(const_cast<char*>(portName), timeoutMs) {}
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// A time-out of 1000 ms; for const text.
    Bootloader(Text portName, bool acquireDeviceInfo)
        : Bootloader(const_cast<char*>(portName), acquireDeviceInfo) {}
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// A time-out of 1000 ms, identity read; for const text.
    Bootloader(Text portName) : Bootloader(const_cast<char*>(portName)) {}
    /// Copies every field; the copy gets its own copies of the serial number and description.
    Bootloader(const Bootloader& other);
    /// Copies every field, with its own copies of the two strings.
    Bootloader& operator=(const Bootloader& other);
    /// Releases the strings and closes the link.
    ~Bootloader();

    /// Queries the device's identity over one connection; true when every query succeeded.
    bool AcquireDeviceInfo();
    /// True after a fully successful AcquireDeviceInfo (also the constructor's).
    bool IsDeviceInfoAvailable();

    /// Write the field to the out-parameter (always) and return IsDeviceInfoAvailable().
    bool GetDeviceType(int* value);
    /// The device subtype; see GetDeviceType.
    bool GetSubDeviceType(int* value);
    /// The hardware revision; see GetDeviceType.
    bool GetRevision(int* value);
    /// The firmware version; see GetDeviceType.
    bool GetFirmwareVersion(int* value);
    /// The bootloader version; see GetDeviceType.
    bool GetBootloaderVersion(int* value);
    /// The highest baud rate the device offers; see GetDeviceType.
    bool GetMaxBaudrate(int* value);
    /// Whether the bootloader or the application runs; see GetDeviceType.
    bool GetProgramMode(DeviceProgrammingState* value);
    /// Without device information: false, *value untouched. Otherwise *value gets a malloc'ed
    /// copy that the caller releases with free.
    bool GetSerialNumber(char** value);
    /// The device's description text; see GetSerialNumber.
    bool GetDeviceDescription(char** value);

    /// Asks the device to switch to its maximum baud rate; on acceptance the next operation
    /// connects at that rate.
    bool SwitchToMaxBaudrate();
    /// Brings the device into programming mode and reads the block size it wants. Refuses a
    /// time-out below 10 ms.
    bool EnterBootloader();
    /// Sends the image file `fileName` in checksummed blocks; `value` goes into the header
    /// unchanged (low 16 bits). True when every block was accepted. Needs the device in
    /// programming mode and a known block size.
    bool UpdateFirmware(int value, char* fileName);
    template <typename Text, std::enable_if_t<std::is_same<Text, const char*>::value, int> = 0>
    /// UpdateFirmware for a file name given as const text.
    bool UpdateFirmware(int value, Text fileName) {
        return UpdateFirmware(value, const_cast<char*>(fileName));
    }

private:
    void InitializeClass(char* portName, int timeout, bool acquireDeviceInfo);
    bool acquireDataField(unsigned char command, int replyLength, int* value);
    bool acquireDeviceType();
    bool acquireDeviceSubType();
    bool acquireRevision();
    bool acquireFirmwareVersion();
    bool acquireBootloaderVersion();
    bool acquireSerialNumber();
    bool acquireMaxBaudrate();
    bool acquireProgramMode();
    bool acquireProgramParameters();
    bool acquireDeviceDescription();
    void copyFrom(const Bootloader& other);

    bool deviceInfoAvailable;
    int timeout;
    int deviceType;
    int subDeviceType;
    int revision;
    int firmwareVersion;
    int bootloaderVersion;
    char* serialNumber;
    char* deviceDescription;
    int maxBaudrate;
    int blockSize;
    int programParameter2;
    RS232 link;
    DeviceProgrammingState programMode;
};

#endif  // QUELWORKS_BOOTLOADER_BOOTLOADER_H
