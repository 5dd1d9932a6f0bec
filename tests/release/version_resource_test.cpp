// The version resources of the Windows files: what Explorer shows under Properties > Details.
// Every file names the release as its product version; quelworks_c.dll gives the C interface
// version of its header as its file version.
#include <quelworks/quelworks_c.h>

#include <gtest/gtest.h>

#include "platform/windows_include.h"

#include <winver.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

struct VersionInfo {
    bool found = false;
    VS_FIXEDFILEINFO fixed{};
    std::string productVersion, fileVersion, originalFilename;
};

std::wstring besideThisProgram(const std::wstring& name) {
    std::vector<wchar_t> path(32768);
    DWORD n = GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    std::wstring dir(path.data(), n);
    return dir.substr(0, dir.find_last_of(L"\\/") + 1) + name;
}

std::string stringValue(const std::vector<char>& block, const char* key) {
    std::string query = std::string("\\StringFileInfo\\040904B0\\") + key;
    char* value = nullptr;
    UINT length = 0;
    if (!VerQueryValueA(block.data(), query.c_str(), reinterpret_cast<void**>(&value), &length) ||
        value == nullptr)
        return "<missing>";
    return std::string(value);
}

VersionInfo readVersionInfo(const std::wstring& file) {
    VersionInfo info;
    DWORD ignored = 0;
    DWORD size = GetFileVersionInfoSizeW(file.c_str(), &ignored);
    if (size == 0) return info;
    std::vector<char> block(size);
    if (!GetFileVersionInfoW(file.c_str(), 0, size, block.data())) return info;
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (!VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length) ||
        length < sizeof(VS_FIXEDFILEINFO))
        return info;
    info.found = true;
    info.fixed = *fixed;
    info.productVersion = stringValue(block, "ProductVersion");
    info.fileVersion = stringValue(block, "FileVersion");
    info.originalFilename = stringValue(block, "OriginalFilename");
    return info;
}

// "major.minor.patch" as the two DWORDs of a fixed version (the fourth part is 0).
std::string fixedVersion(DWORD ms, DWORD ls) {
    char text[64];
    std::snprintf(text, sizeof text, "%lu.%lu.%lu.%lu", static_cast<unsigned long>(HIWORD(ms)),
                  static_cast<unsigned long>(LOWORD(ms)), static_cast<unsigned long>(HIWORD(ls)),
                  static_cast<unsigned long>(LOWORD(ls)));
    return text;
}

}  // namespace

TEST(VersionResource, EveryFileNamesTheReleaseAndItsOwnVersion) {
    struct Expected {
        const wchar_t* file;
        const char* name;
        std::string fileVersion;
        DWORD type;
    };
    const Expected files[] = {
        {L"quelworks.dll", "quelworks.dll", QW_PROJECT_VERSION, VFT_DLL},
        {L"quelworks_c.dll", "quelworks_c.dll", QW_VERSION_STRING, VFT_DLL},
        {L"quelworks.exe", "quelworks.exe", QW_PROJECT_VERSION, VFT_APP},
    };
    for (const Expected& e : files) {
        SCOPED_TRACE(e.name);
        std::wstring path = besideThisProgram(e.file);
        if (GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
            // The command is built only where CLI11 is found; the libraries always are.
            EXPECT_EQ(e.type, static_cast<DWORD>(VFT_APP)) << "missing beside the test";
            continue;
        }
        VersionInfo info = readVersionInfo(path);
        ASSERT_TRUE(info.found) << "no version resource";
        EXPECT_EQ(info.productVersion, QW_PROJECT_VERSION);
        EXPECT_EQ(info.fileVersion, e.fileVersion);
        EXPECT_EQ(info.originalFilename, e.name);
        EXPECT_EQ(fixedVersion(info.fixed.dwFileVersionMS, info.fixed.dwFileVersionLS),
                  e.fileVersion + ".0");
        EXPECT_EQ(fixedVersion(info.fixed.dwProductVersionMS, info.fixed.dwProductVersionLS),
                  std::string(QW_PROJECT_VERSION) + ".0");
        EXPECT_EQ(info.fixed.dwFileType, e.type);
    }
}
