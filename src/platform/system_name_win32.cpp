// Names on Windows: narrow names (UTF-8 or the ANSI code page) to UTF-16 and back.
#include "platform/windows_include.h"

#include <io.h>

#include "platform/system_name.h"

namespace quelworks::detail {
namespace {
thread_local bool utf8Names = false;

UINT codePage() {
    return utf8Names ? CP_UTF8 : CP_ACP;
}
}  // namespace

Utf8NameScope::Utf8NameScope() noexcept : previous(utf8Names) {
    utf8Names = true;
}

Utf8NameScope::~Utf8NameScope() {
    utf8Names = previous;
}

bool namesAreUtf8() noexcept {
    return utf8Names;
}

bool systemName(const char* name, std::wstring* wide) {
    wide->clear();
    if (name == nullptr) return false;
    if (*name == '\0') return true;
    // Broken UTF-8 is refused rather than replaced, so that a bad name cannot open another file.
    DWORD flags = utf8Names ? MB_ERR_INVALID_CHARS : 0;
    int length = MultiByteToWideChar(codePage(), flags, name, -1, nullptr, 0);
    if (length <= 0) return false;
    wide->resize(static_cast<std::size_t>(length));
    if (MultiByteToWideChar(codePage(), flags, name, -1, &(*wide)[0], length) != length) {
        wide->clear();
        return false;
    }
    wide->resize(static_cast<std::size_t>(length - 1));  // without the terminating zero
    return true;
}

bool narrowName(const wchar_t* wide, std::string* name) {
    name->clear();
    if (wide == nullptr) return false;
    if (*wide == L'\0') return true;
    int length = WideCharToMultiByte(codePage(), 0, wide, -1, nullptr, 0, nullptr, nullptr);
    if (length <= 0) return false;
    name->resize(static_cast<std::size_t>(length));
    if (WideCharToMultiByte(codePage(), 0, wide, -1, &(*name)[0], length, nullptr, nullptr) !=
        length) {
        name->clear();
        return false;
    }
    name->resize(static_cast<std::size_t>(length - 1));
    return true;
}

std::FILE* openRegularFile(const char* name) {
    std::FILE* file = openFile(name, "rb");
    if (file == nullptr) return nullptr;
    // Only files on disk: no pipes, consoles or devices.
    HANDLE h = reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file)));
    if (h == INVALID_HANDLE_VALUE || GetFileType(h) != FILE_TYPE_DISK) {
        std::fclose(file);
        return nullptr;
    }
    return file;
}

std::FILE* openFile(const char* name, const char* mode) {
    std::wstring wideName;
    if (mode == nullptr || !systemName(name, &wideName)) return nullptr;
    std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
    return _wfopen(wideName.c_str(), wideMode.c_str());
}

std::filesystem::path pathFromName(const char* name) {
    std::wstring wide;
    if (!systemName(name, &wide)) return std::filesystem::path();
    return std::filesystem::path(wide);
}

}  // namespace quelworks::detail
