// Whole-file reading and crash-safe replacing on Windows.
#include "platform/windows_include.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

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

// How many edit locks the calling thread holds: its own reads then never wait for an edit.
thread_local int editLocksHeld = 0;

// The name of the lock file that stands for a file while it is edited: the file's full name, its
// folder's links and junctions resolved, plus ".lock". The file itself is opened only when it is
// a link (to find the file it leads to): an open handle, even for a moment, can make another
// editor's replacing rename fail. Being made from the folder, the name is the same whether the
// file exists or, in the middle of a save, is briefly missing. Empty when no such name can be
// made (the folder does not exist, a device).
std::wstring lockNameFor(const std::wstring& name) {
    const DWORD attributes = GetFileAttributesW(name.c_str());
    if (attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_REPARSE_POINT)) {
        Handle file(CreateFileW(name.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file.valid() || GetFileType(file.get()) != FILE_TYPE_DISK) return std::wstring();
        const std::wstring real = finalPath(file.get());
        return real.empty() ? real : real + L".lock";
    }
    DWORD size = GetFullPathNameW(name.c_str(), 0, nullptr, nullptr);
    if (size == 0) return std::wstring();
    std::wstring full(size, L'\0');
    wchar_t* leaf = nullptr;
    DWORD length = GetFullPathNameW(name.c_str(), size, &full[0], &leaf);
    if (length == 0 || length >= size || leaf == nullptr) return std::wstring();
    const std::wstring base(leaf);
    full.resize(static_cast<std::size_t>(leaf - full.data()));
    Handle folder(CreateFileW(full.c_str(), 0, kShareAll, nullptr, OPEN_EXISTING,
                              FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!folder.valid() || GetFileType(folder.get()) != FILE_TYPE_DISK) return std::wstring();
    std::wstring real = finalPath(folder.get());
    if (real.empty()) return real;
    if (real.back() != L'\\') real += L'\\';
    return real + base + L".lock";
}

// Whether someone is editing the file right now (its lock file exists).
bool editInProgress(const std::wstring& name) {
    const std::wstring lock = lockNameFor(name);
    return !lock.empty() && GetFileAttributesW(lock.c_str()) != INVALID_FILE_ATTRIBUTES;
}

// The editors of this process waiting for each lock file, first come first served. Polling alone
// is not fair: a thread that has just released the lock file is ready to take it again before a
// sleeping waiter wakes, and can keep it from the others until their wait runs out.
struct EditQueues {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::wstring, std::deque<const void*>> waiting;

    // Waits until `editor` is first in the queue for `lockName`; false, having left the queue,
    // when the deadline passes first.
    bool join(const std::wstring& lockName, const void* editor,
              std::chrono::steady_clock::time_point deadline) {
        std::unique_lock<std::mutex> guard(mutex);
        std::deque<const void*>& queue = waiting[lockName];
        queue.push_back(editor);
        if (changed.wait_until(guard, deadline, [&] { return queue.front() == editor; })) {
            return true;
        }
        queue.erase(std::find(queue.begin(), queue.end(), editor));
        if (queue.empty()) waiting.erase(lockName);
        changed.notify_all();  // the next one may now be first
        return false;
    }

    // `editor`, first in the queue, leaves it and lets the next one in.
    void leave(const std::wstring& lockName) {
        std::lock_guard<std::mutex> guard(mutex);
        auto it = waiting.find(lockName);
        it->second.pop_front();
        if (it->second.empty()) waiting.erase(it);
        changed.notify_all();
    }
};

EditQueues& editQueues() {
    static EditQueues* queues = new EditQueues;  // never destroyed: locks may outlive statics
    return *queues;
}

// How long a reader waits for a save in progress to put the file back before it gives up.
constexpr std::chrono::milliseconds kReadWait(2000);

}  // namespace

bool readWholeFile(const std::string& path, FileBytes& contents) {
    // Names reach the system in UTF-16, read as the ANSI code page (the C++ interface) or as
    // UTF-8 (the C interface). Without FILE_FLAG_BACKUP_SEMANTICS a folder does not open.
    std::wstring name;
    if (!quelworks::detail::systemName(path.c_str(), &name)) return false;
    HANDLE opened = INVALID_HANDLE_VALUE;
    // A save replaces the file, and on some systems the name is briefly missing or in use while it
    // does. A reader that finds it so while an editor holds the file's lock waits a little and
    // tries again, so that it reads the old or the new file rather than nothing.
    const auto deadline = std::chrono::steady_clock::now() + kReadWait;
    for (bool lastTry = false;;) {
        opened = CreateFileW(name.c_str(), GENERIC_READ, kShareAll, nullptr, OPEN_EXISTING,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_SEQUENTIAL_SCAN, nullptr);
        if (opened != INVALID_HANDLE_VALUE || lastTry || editLocksHeld > 0) break;
        const DWORD error = GetLastError();
        if (error != ERROR_FILE_NOT_FOUND && error != ERROR_SHARING_VIOLATION &&
            error != ERROR_ACCESS_DENIED) {
            break;
        }
        // Once no edit is under way (any more), one last attempt finds the file if that edit
        // has just put it back.
        if (!editInProgress(name) || std::chrono::steady_clock::now() >= deadline) {
            lastTry = true;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    Handle file(opened);
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
    if (handle_ != -1) {
        CloseHandle(reinterpret_cast<HANDLE>(handle_));
        --editLocksHeld;
    }
    if (!queue_.empty()) editQueues().leave(queue_);
}

EditLock::Result EditLock::acquire(const std::string& path, std::chrono::milliseconds wait) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + wait;
    std::wstring name;
    if (!quelworks::detail::systemName(path.c_str(), &name)) return Result::Unavailable;
    // The lock is a file of its own beside the edited one, open without sharing while the edit
    // runs and deleted when it is closed. A lock on the edited file itself would need a handle
    // on it during the save, and an open handle keeps a rename from replacing the file.
    const std::wstring lockName = lockNameFor(name);
    if (lockName.empty()) return Result::Unavailable;
    if (!editQueues().join(lockName, this, deadline)) return Result::TimedOut;
    queue_ = lockName;
    const Result result = takeLockFile(lockName, deadline);
    if (result != Result::Locked) {
        editQueues().leave(queue_);
        queue_.clear();
    }
    return result;
}

EditLock::Result EditLock::takeLockFile(const std::wstring& lockName,
                                        std::chrono::steady_clock::time_point deadline) {
    std::chrono::microseconds pause(200);
    for (;;) {
        // One left behind by a holder that died with the system (a process that dies has its
        // handles closed, which deletes it) is simply taken over.
        HANDLE lock = CreateFileW(
            lockName.c_str(), GENERIC_READ | DELETE, 0, nullptr, OPEN_ALWAYS,
            FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        if (lock != INVALID_HANDLE_VALUE) {
            handle_ = reinterpret_cast<std::intptr_t>(lock);
            ++editLocksHeld;
            return Result::Locked;
        }
        const DWORD error = GetLastError();
        // Another editor holds it (sharing violation), or has just closed it and it is being
        // deleted (access denied while it still exists). Any other failure, such as a folder
        // where no file can be created, means no lock can be had.
        const bool held = error == ERROR_SHARING_VIOLATION ||
                          (error == ERROR_ACCESS_DENIED &&
                           GetFileAttributesW(lockName.c_str()) != INVALID_FILE_ATTRIBUTES);
        if (!held) return Result::Unavailable;
        if (std::chrono::steady_clock::now() >= deadline) return Result::TimedOut;
        std::this_thread::sleep_for(pause);
        if (pause < std::chrono::milliseconds(4)) pause *= 2;
    }
}

}  // namespace quelworks::platform
