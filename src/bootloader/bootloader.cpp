#include "quelworks/bootloader/bootloader.h"

#include <cstdlib>
#include <cstring>

#include "bootloader/boot_session.h"

namespace {

char* duplicate(const char* text) {
    if (text == nullptr) return nullptr;
    std::size_t size = std::strlen(text) + 1;
    char* copy = static_cast<char*>(std::malloc(size));
    if (copy != nullptr) std::memcpy(copy, text, size);
    return copy;
}

}  // namespace

// Every operation runs its exchanges through the shared protocol code on this object's fields,
// connecting and disconnecting around them as this class always has.
#define QW_SESSION()                                                                               \
    quelworks::BootSession(                                                                        \
        link,                                                                                      \
        quelworks::BootFields{timeout, deviceInfoAvailable, deviceType, subDeviceType, revision,   \
                              firmwareVersion, bootloaderVersion, serialNumber, deviceDescription, \
                              maxBaudrate, blockSize, programParameter2, programMode,              \
                              ProgressCallback},                                                   \
        true)

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

    // Whatever the device still had to say would be read as the echo of the first query.
    QW_SESSION().Drain();

    if (acquire) deviceInfoAvailable = AcquireDeviceInfo();
}

bool Bootloader::AcquireDeviceInfo() {
    return QW_SESSION().AcquireDeviceInfo();
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
    return QW_SESSION().SwitchToMaxBaudrate();
}

bool Bootloader::EnterBootloader() {
    return QW_SESSION().EnterBootloader();
}

bool Bootloader::UpdateFirmware(int value, char* fileName) {
    return QW_SESSION().UpdateFirmware(value, fileName);
}

#undef QW_SESSION
