// Serial port listing on Windows, from the SERIALCOMM registry key.
#include "platform/windows_include.h"

#include <setupapi.h>

#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <vector>

#include "platform/serial_port.h"

namespace quelworks::detail {
namespace {

constexpr DWORD kNameCapacity = 1000;  // wide characters, for value names and values alike

// The device setup class of serial and parallel ports.
const GUID kPortsClass = {
    0x4D36E978, 0xE325, 0x11CE, {0xBF, 0xC1, 0x08, 0x00, 0x2B, 0xE1, 0x03, 0x18}};

std::string narrow(const wchar_t* text) {
    if (text == nullptr || text[0] == 0) return "";
    int size = WideCharToMultiByte(CP_UTF8, 0, text, -1, nullptr, 0, nullptr, nullptr);
    if (size <= 1) return "";
    std::string result(static_cast<std::size_t>(size), '\0');
    WideCharToMultiByte(CP_UTF8, 0, text, -1, &result[0], size, nullptr, nullptr);
    result.resize(static_cast<std::size_t>(size - 1));
    return result;
}

// A text property of a device (the first string of a multi-string one); empty if it has none.
std::string textProperty(HDEVINFO set, SP_DEVINFO_DATA* device, DWORD property) {
    wchar_t buffer[kNameCapacity + 2] = {};
    DWORD type = 0;
    if (!SetupDiGetDeviceRegistryPropertyW(set, device, property, &type,
                                           reinterpret_cast<BYTE*>(buffer),
                                           kNameCapacity * sizeof(wchar_t), nullptr))
        return "";
    if (type != REG_SZ && type != REG_MULTI_SZ) return "";
    return narrow(buffer);
}

// The hexadecimal number after `key` ("VID_") in a hardware or instance id; -1 if none.
int idAfter(const std::string& id, const char* key) {
    std::size_t at = id.find(key);
    if (at == std::string::npos) return -1;
    std::string digits = id.substr(at + std::strlen(key), 4);
    if (digits.size() != 4) return -1;
    char* end = nullptr;
    long value = std::strtol(digits.c_str(), &end, 16);
    return *end == '\0' ? static_cast<int>(value) : -1;
}

// What SetupAPI knows of one port of the Ports class, or false if it is not a COM port.
bool describe(HDEVINFO set, SP_DEVINFO_DATA* device, PortDetails* details) {
    HKEY key = SetupDiOpenDevRegKey(set, device, DICS_FLAG_GLOBAL, 0, DIREG_DEV, KEY_READ);
    if (key == INVALID_HANDLE_VALUE) return false;
    wchar_t name[kNameCapacity + 1] = {};
    DWORD size = kNameCapacity * sizeof(wchar_t);
    DWORD type = 0;
    bool named = RegQueryValueExW(key, L"PortName", nullptr, &type, reinterpret_cast<BYTE*>(name),
                                  &size) == ERROR_SUCCESS &&
                 type == REG_SZ;
    RegCloseKey(key);
    if (!named) return false;
    details->name = narrow(name);
    details->description = textProperty(set, device, SPDRP_FRIENDLYNAME);
    if (details->description.empty())
        details->description = textProperty(set, device, SPDRP_DEVICEDESC);
    details->manufacturer = textProperty(set, device, SPDRP_MFG);
    details->location = textProperty(set, device, SPDRP_LOCATION_INFORMATION);
    details->driver = textProperty(set, device, SPDRP_SERVICE);
    std::string hardwareId = textProperty(set, device, SPDRP_HARDWAREID);
    details->vendorId = idAfter(hardwareId, "VID_");
    details->productId = idAfter(hardwareId, "PID_");
    wchar_t instance[kNameCapacity + 1] = {};
    if (SetupDiGetDeviceInstanceIdW(set, device, instance, kNameCapacity, nullptr)) {
        // USB\VID_0403&PID_6001\A6008isP: the last part is the device's serial number unless
        // Windows made one up (those contain '&').
        std::string id = narrow(instance);
        std::size_t slash = id.find_last_of('\\');
        if (details->vendorId >= 0 && slash != std::string::npos &&
            id.find('&', slash) == std::string::npos)
            details->serialNumber = id.substr(slash + 1);
    }
    return true;
}

}  // namespace

std::vector<PortDetails> listPortDetails() {
    std::vector<PortDetails> known;
    HDEVINFO set = SetupDiGetClassDevsW(&kPortsClass, nullptr, nullptr, DIGCF_PRESENT);
    if (set != INVALID_HANDLE_VALUE) {
        SP_DEVINFO_DATA device;
        for (DWORD index = 0;; ++index) {
            device = SP_DEVINFO_DATA{};
            device.cbSize = sizeof device;
            if (!SetupDiEnumDeviceInfo(set, index, &device)) break;
            PortDetails details;
            if (describe(set, &device, &details)) known.push_back(details);
        }
        SetupDiDestroyDeviceInfoList(set);
    }
    // The ports are those of the SERIALCOMM listing, in its order; SetupAPI adds what it knows.
    std::vector<PortDetails> result;
    RList<char*> names;
    listPorts(&names);
    for (char* name : names) {
        PortDetails details;
        details.name = name;
        details.description = "serial port";
        for (const PortDetails& candidate : known) {
            if (_stricmp(candidate.name.c_str(), name) == 0) details = candidate;
        }
        details.name = name;
        result.push_back(details);
        std::free(name);
    }
    names.free();
    return result;
}

void listPorts(RList<char*>* ports) {
    if (ports == nullptr) return;
    HKEY key = nullptr;
    RList<wchar_t*> names;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, L"HARDWARE\\DEVICEMAP\\SERIALCOMM", 0, 0x20119, &key) ==
        ERROR_SUCCESS) {
        // The value names (device names such as \Device\Serial0), in enumeration order. A name
        // that does not fit the buffer ends the enumeration.
        for (DWORD index = 0;; ++index) {
            wchar_t name[kNameCapacity];
            DWORD nameLength = kNameCapacity;
            if (RegEnumValueW(key, index, name, &nameLength, nullptr, nullptr, nullptr, nullptr) !=
                ERROR_SUCCESS)
                break;
            auto* copy = static_cast<wchar_t*>(std::calloc(nameLength + 1, sizeof(wchar_t)));
            if (copy == nullptr) break;
            std::wmemcpy(copy, name, nameLength);
            names.push_back(copy);
        }
        for (wchar_t* name : names) {
            DWORD type = 0;
            DWORD size = 0;
            if (RegQueryValueExW(key, name, nullptr, &type, nullptr, &size) != ERROR_SUCCESS ||
                type != REG_SZ)
                continue;
            wchar_t value[kNameCapacity + 1] = {};
            if (size > kNameCapacity * sizeof(wchar_t)) size = kNameCapacity * sizeof(wchar_t);
            if (RegQueryValueExW(key, name, nullptr, nullptr, reinterpret_cast<BYTE*>(value),
                                 &size) != ERROR_SUCCESS)
                continue;
            // Each UTF-16 unit keeps its low 8 bits: port names are plain ASCII.
            std::size_t length = 0;
            while (length < kNameCapacity && value[length] != 0) ++length;
            char* narrow = static_cast<char*>(std::calloc(length + 1, 1));
            if (narrow == nullptr) continue;
            for (std::size_t i = 0; i < length; ++i)
                narrow[i] = static_cast<char>(static_cast<unsigned char>(value[i] & 0xFF));
            char* copy = static_cast<char*>(std::malloc(length + 1));
            if (copy != nullptr) {
                std::memcpy(copy, narrow, length + 1);
                ports->push_back(copy);
            }
            std::free(narrow);
        }
    }
    RegCloseKey(key);
    for (wchar_t* name : names) std::free(name);
}

}  // namespace quelworks::detail
