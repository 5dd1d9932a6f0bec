// The bootloader client (qw_boot_...) over Bootloader.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "capi/capi_internal.h"
#include "platform/system_name.h"
#include "quelworks/bootloader/bootloader.h"

namespace quelworks::capi {
namespace {

struct BootObject {
    std::unique_ptr<Bootloader> client;
    ProgressContext progress;
};

qw_status intField(const void* handle, int32_t* value, bool (Bootloader::*getter)(int*),
                   const char* what) {
    QW_FIND(b, BootObject, handle, Kind::Boot);
    QW_REQUIRE(value, "null pointer: value");
    int v = 0;
    bool available = (b->client.get()->*getter)(&v);
    *value = v;
    if (!available)
        return fail(QW_ERR_NOT_AVAILABLE,
                    std::string("the device's identity has not been read (") + what + ")");
    return QW_OK;
}

qw_status textField(const void* handle, char* buffer, int32_t size, int32_t* needed,
                    bool (Bootloader::*getter)(char**), const char* what) {
    QW_FIND(b, BootObject, handle, Kind::Boot);
    char* text = nullptr;
    if (!(b->client.get()->*getter)(&text))
        return fail(QW_ERR_NOT_AVAILABLE,
                    std::string("the device's identity has not been read (") + what + ")");
    std::string copy(text ? text : "");
    std::free(text);
    return copyOut(copy, buffer, size, needed);
}

qw_status flash(BootObject& b, int32_t value, const std::string& fileName) {
    std::vector<char> name(fileName.begin(), fileName.end());
    name.push_back('\0');
    ProgressScope scope(&b.progress);
    b.client->ProgressCallback = b.progress.callback ? &progressTrampolineVoid : nullptr;
    bool ok;
    {
        quelworks::detail::Utf8NameScope utf8;
        ok = b.client->UpdateFirmware(value, name.data());
    }
    b.client->ProgressCallback = nullptr;
    if (!ok)
        return fail(QW_ERR_FAILED,
                    "the firmware update failed (image unreadable, device not in programming "
                    "mode, or a block was not accepted)");
    return QW_OK;
}

// A temporary file that is removed when it goes out of scope.
class TemporaryFile {
public:
    TemporaryFile() {
        std::random_device seed;
        std::mt19937_64 random(seed() ^
                               static_cast<std::uint64_t>(
                                   std::chrono::steady_clock::now().time_since_epoch().count()));
        std::error_code noFolder;
        std::filesystem::path folder = std::filesystem::temp_directory_path(noFolder);
        if (noFolder) return;  // no temporary folder: write() then fails
        for (int attempt = 0; attempt < 100 && path.empty(); ++attempt) {
            std::filesystem::path candidate =
                folder / ("quelworks-image-" + std::to_string(random()) + ".bin");
            std::error_code error;
            if (!std::filesystem::exists(candidate, error) && !error) path = candidate;
        }
    }
    ~TemporaryFile() {
        std::error_code ignored;
        if (!path.empty()) std::filesystem::remove(path, ignored);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    bool write(const uint8_t* data, int32_t length) {
        if (path.empty()) return false;
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out) return false;
        if (length > 0) out.write(reinterpret_cast<const char*>(data), length);
        out.close();
        return static_cast<bool>(out);
    }
    // The name as UTF-8, the way the C interface hands names to the library.
    std::string utf8Name() const {
        auto text = path.u8string();
        return std::string(text.begin(), text.end());
    }

private:
    std::filesystem::path path;
};

}  // namespace
}  // namespace quelworks::capi

using namespace quelworks::capi;

extern "C" {

QW_C_API qw_status QW_CALL qw_boot_new(const char* port_name, int32_t timeout_ms,
                                       int32_t read_identity, qw_boot** boot) {
    return guarded([&] {
        QW_REQUIRE(port_name, "null pointer: port_name");
        QW_REQUIRE(*port_name, "empty port name");
        QW_REQUIRE(boot, "null pointer: boot");
        QW_REQUIRE(timeout_ms >= 10, "time-out below 10 ms");
        auto object = std::make_shared<BootObject>();
        std::vector<char> name(port_name, port_name + std::string_view(port_name).size() + 1);
        {
            quelworks::detail::Utf8NameScope utf8;
            object->client =
                std::make_unique<Bootloader>(name.data(), timeout_ms, read_identity != 0);
        }
        return createHandle(Kind::Boot, std::move(object), boot);
    });
}

QW_C_API qw_status QW_CALL qw_boot_free(qw_boot* boot) {
    return guarded([&] { return freeHandle(boot, Kind::Boot); });
}

QW_C_API qw_status QW_CALL qw_boot_read_identity(qw_boot* boot) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        quelworks::detail::Utf8NameScope utf8;
        if (!b->client->AcquireDeviceInfo())
            return fail(QW_ERR_FAILED,
                        "reading the device's identity failed (port not opened or a query "
                        "not answered)");
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_has_identity(qw_boot* boot, int32_t* available) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        QW_REQUIRE(available, "null pointer: available");
        *available = b->client->IsDeviceInfoAvailable() ? 1 : 0;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_get_device_type(qw_boot* boot, int32_t* value) {
    return guarded(
        [&] { return intField(boot, value, &Bootloader::GetDeviceType, "device type"); });
}

QW_C_API qw_status QW_CALL qw_boot_get_sub_device_type(qw_boot* boot, int32_t* value) {
    return guarded(
        [&] { return intField(boot, value, &Bootloader::GetSubDeviceType, "sub-device type"); });
}

QW_C_API qw_status QW_CALL qw_boot_get_revision(qw_boot* boot, int32_t* value) {
    return guarded([&] { return intField(boot, value, &Bootloader::GetRevision, "revision"); });
}

QW_C_API qw_status QW_CALL qw_boot_get_firmware_version(qw_boot* boot, int32_t* value) {
    return guarded(
        [&] { return intField(boot, value, &Bootloader::GetFirmwareVersion, "firmware version"); });
}

QW_C_API qw_status QW_CALL qw_boot_get_bootloader_version(qw_boot* boot, int32_t* value) {
    return guarded([&] {
        return intField(boot, value, &Bootloader::GetBootloaderVersion, "bootloader version");
    });
}

QW_C_API qw_status QW_CALL qw_boot_get_max_baud_rate(qw_boot* boot, int32_t* value) {
    return guarded(
        [&] { return intField(boot, value, &Bootloader::GetMaxBaudrate, "maximum baud rate"); });
}

QW_C_API qw_status QW_CALL qw_boot_get_program_mode(qw_boot* boot, int32_t* value) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        QW_REQUIRE(value, "null pointer: value");
        Bootloader::DeviceProgrammingState state = Bootloader::NotInProgramMode;
        bool available = b->client->GetProgramMode(&state);
        *value = static_cast<int32_t>(state);
        if (!available)
            return fail(QW_ERR_NOT_AVAILABLE,
                        "the device's identity has not been read (program mode)");
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_get_serial_number(qw_boot* boot, char* buffer, int32_t size,
                                                     int32_t* needed) {
    return guarded([&] {
        return textField(boot, buffer, size, needed, &Bootloader::GetSerialNumber, "serial number");
    });
}

QW_C_API qw_status QW_CALL qw_boot_get_description(qw_boot* boot, char* buffer, int32_t size,
                                                   int32_t* needed) {
    return guarded([&] {
        return textField(boot, buffer, size, needed, &Bootloader::GetDeviceDescription,
                         "description");
    });
}

QW_C_API qw_status QW_CALL qw_boot_switch_to_max_baud_rate(qw_boot* boot) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        quelworks::detail::Utf8NameScope utf8;
        if (!b->client->SwitchToMaxBaudrate())
            return fail(QW_ERR_FAILED,
                        "the device did not accept the switch to its maximum baud rate");
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_enter_programming(qw_boot* boot) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        quelworks::detail::Utf8NameScope utf8;
        if (!b->client->EnterBootloader())
            return fail(QW_ERR_FAILED, "the device did not enter programming mode");
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_set_progress(qw_boot* boot, qw_progress_fn callback,
                                                void* user) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        b->progress.callback = callback;
        b->progress.user = user;
        return QW_OK;
    });
}

QW_C_API qw_status QW_CALL qw_boot_flash_file(qw_boot* boot, int32_t value, const char* file_name) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        QW_REQUIRE(file_name, "null pointer: file_name");
        return flash(*b, value, file_name);
    });
}

QW_C_API qw_status QW_CALL qw_boot_flash_memory(qw_boot* boot, int32_t value, const uint8_t* image,
                                                int32_t length) {
    return guarded([&] {
        QW_FIND(b, BootObject, boot, Kind::Boot);
        if (qw_status s = checkBuffer(image, length, "image")) return s;
        TemporaryFile file;
        if (!file.write(image, length))
            return fail(QW_ERR_FAILED, "cannot write the image to a temporary file");
        return flash(*b, value, file.utf8Name());
    });
}

}  // extern "C"
