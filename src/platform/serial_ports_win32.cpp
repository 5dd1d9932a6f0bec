// Serial port listing on Windows, from the SERIALCOMM registry key.
#include "platform/windows_include.h"

#include <cstdlib>
#include <cstring>
#include <cwchar>

#include "platform/serial_port.h"

namespace quelworks::detail {
namespace {

constexpr DWORD kNameCapacity = 1000;  // wide characters, for value names and values alike

}  // namespace

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
