// Whole-file reading and crash-safe replacing on Windows.
#include "platform/windows_include.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "platform/file.h"
#include "platform/system_name.h"

namespace quelworks::platform {
namespace {

constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
constexpr std::size_t kChunk = std::size_t{1} << 30;  // ReadFile and WriteFile take a DWORD

// Closes a handle when it goes out of scope.
class Handle {
public:
    explicit Handle(HANDLE h) : h_(h) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { reset(); }
    HANDLE get() const { return h_; }
    bool valid() const { return h_ != INVALID_HANDLE_VALUE; }
    void reset() {
        if (valid()) CloseHandle(h_);
        h_ = INVALID_HANDLE_VALUE;
    }

private:
    HANDLE h_;
};

bool writeAll(HANDLE h, std::string_view bytes) {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        DWORD written = 0;
        DWORD n = static_cast<DWORD>(std::min(left, kChunk));
        if (!WriteFile(h, p, n, &written, nullptr) || written == 0) return false;
        p += written;
        left -= written;
    }
    return true;
}

WriteResult writeInPlace(HANDLE h, bool disk, std::string_view bytes) {
    if (disk) {
        LARGE_INTEGER zero{};
        if (!SetFilePointerEx(h, zero, nullptr, FILE_BEGIN) || !SetEndOfFile(h)) {
            return WriteResult::Failed;
        }
    }
    if (!writeAll(h, bytes)) return WriteResult::Failed;
    if (disk && !FlushFileBuffers(h)) return WriteResult::Failed;
    return WriteResult::Written;
}

// The full name of the opened file with links and junctions resolved, without the "\\?\" prefix.
std::wstring finalPath(HANDLE h) {
    const DWORD flags = FILE_NAME_NORMALIZED | VOLUME_NAME_DOS;
    DWORD size = GetFinalPathNameByHandleW(h, nullptr, 0, flags);
    if (size == 0) return std::wstring();
    std::wstring path(size, L'\0');
    DWORD length = GetFinalPathNameByHandleW(h, &path[0], size, flags);
    if (length == 0 || length >= size) return std::wstring();
    path.resize(length);
    if (path.compare(0, 8, L"\\\\?\\UNC\\") == 0) return L"\\\\" + path.substr(8);
    if (path.compare(0, 4, L"\\\\?\\") == 0) return path.substr(4);
    return path;
}

}  // namespace

bool readWholeFile(const std::string& path, FileBytes& contents) {
    // Names reach the system in UTF-16, read as the ANSI code page (the C++ interface) or as
    // UTF-8 (the C interface). Without FILE_FLAG_BACKUP_SEMANTICS a folder does not open.
    std::wstring name;
    if (!quelworks::detail::systemName(path.c_str(), &name)) return false;
    Handle file(CreateFileW(name.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                            FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr));
    if (!file.valid() || GetFileType(file.get()) != FILE_TYPE_DISK) return false;
    LARGE_INTEGER size{};
    std::size_t capacity = 65536;
    if (GetFileSizeEx(file.get(), &size) && size.QuadPart >= 0) {
        capacity = static_cast<std::size_t>(size.QuadPart) + 1;
    }
    std::unique_ptr<char[]> data(new char[capacity]);
    std::size_t used = 0;
    for (;;) {
        if (used == capacity) {
            std::unique_ptr<char[]> bigger(new char[capacity * 2]);
            std::memcpy(bigger.get(), data.get(), used);
            data.swap(bigger);
            capacity *= 2;
        }
        DWORD got = 0;
        DWORD want = static_cast<DWORD>(std::min(capacity - used, kChunk));
        if (!ReadFile(file.get(), data.get() + used, want, &got, nullptr) || got == 0) break;
        used += got;
    }
    contents.data = std::move(data);
    contents.size = used;
    return true;
}

WriteResult replaceWholeFile(const std::string& path, std::string_view bytes) {
    // Opening for writing without truncating tells whether the file can be written at all (a
    // read-only file or a folder cannot), and creates it when it is missing.
    std::wstring name;
    if (!quelworks::detail::systemName(path.c_str(), &name)) return WriteResult::CannotOpen;
    Handle target(CreateFileW(name.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!target.valid()) return WriteResult::CannotOpen;
    const bool disk = GetFileType(target.get()) == FILE_TYPE_DISK;
    BY_HANDLE_FILE_INFORMATION info{};
    // Replacing one name of a file with several hard links would split it from the others.
    if (!disk || !GetFileInformationByHandle(target.get(), &info) || info.nNumberOfLinks > 1) {
        return writeInPlace(target.get(), disk, bytes);
    }
    const std::wstring real = finalPath(target.get());
    const std::size_t slash = real.find_last_of(L"\\/");
    wchar_t temp[MAX_PATH + 1] = {};
    if (real.empty() || slash == std::wstring::npos ||
        GetTempFileNameW(real.substr(0, slash + 1).c_str(), L"qw", 0, temp) == 0) {
        return writeInPlace(target.get(), disk, bytes);
    }
    {
        Handle out(CreateFileW(temp, GENERIC_WRITE, 0, nullptr, TRUNCATE_EXISTING,
                               FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!out.valid()) {
            DeleteFileW(temp);
            return writeInPlace(target.get(), disk, bytes);
        }
        if (!writeAll(out.get(), bytes) || !FlushFileBuffers(out.get())) {
            out.reset();
            DeleteFileW(temp);
            return WriteResult::Failed;
        }
    }
    target.reset();
    // ReplaceFile keeps the original's attributes, security and creation time.
    if (ReplaceFileW(real.c_str(), temp, nullptr, REPLACEFILE_IGNORE_MERGE_ERRORS, nullptr,
                     nullptr) ||
        MoveFileExW(temp, real.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) {
        return WriteResult::Written;
    }
    DeleteFileW(temp);
    Handle again(CreateFileW(real.c_str(), GENERIC_WRITE, kShareAll, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!again.valid()) return WriteResult::Failed;
    return writeInPlace(again.get(), disk, bytes);
}

EditLock::~EditLock() {
    if (handle_ != -1) CloseHandle(reinterpret_cast<HANDLE>(handle_));
}

EditLock::Result EditLock::acquire(const std::string&, std::chrono::milliseconds) {
    // Not yet on Windows: a byte-range lock held beside ReplaceFile made concurrent edits fail
    // and lose data under Wine, so edits run without a lock here, exactly as before.
    return Result::Unavailable;
}

}  // namespace quelworks::platform
