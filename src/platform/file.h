// Whole-file reading and crash-safe whole-file replacing, one implementation per OS
// (file_posix.cpp, file_win32.cpp).
#ifndef QUELWORKS_SRC_PLATFORM_FILE_H
#define QUELWORKS_SRC_PLATFORM_FILE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace quelworks::platform {

// Text written to files ends its lines with CR LF on Windows, with a bare LF elsewhere.
#if defined(_WIN32)
inline constexpr bool kCrLfLineEnds = true;
#else
inline constexpr bool kCrLfLineEnds = false;
#endif

// A file's bytes, in a buffer that is not cleared before the file is read into it.
struct FileBytes {
    std::unique_ptr<char[]> data;
    std::size_t size = 0;
    std::string_view view() const { return std::string_view(data.get(), size); }
};

// Reads the whole file into `contents` (replacing what it held) with as few reads as the OS
// allows. False, with `contents` untouched, when the file cannot be opened for reading: it does
// not exist, access is denied, or the name is not a regular file (a folder, a FIFO, a device or a
// socket fails at once; opening never blocks).
bool readWholeFile(const std::string& path, FileBytes& contents);

enum class WriteResult {
    Written,     // the file now holds exactly the new bytes
    CannotOpen,  // the file cannot be opened for writing; nothing was changed
    Failed,      // writing failed (disk full, I/O error); the file holds its old bytes
};

// Replaces the file's whole content with `bytes`, creating the file when it does not exist.
//
// The new bytes go to a temporary file in the same folder, which is flushed to disk and then put
// in the original's place, so that a crash or a full disk never leaves a half-written file. The
// original's permissions (and owner, where that can be set) are given to the new file; a symbolic
// link is followed and the file it points to is replaced, the link stays. When no temporary file
// can be made there (a folder without write access, a file with several hard links, something that
// is not a regular file, an owner, group or extended attribute that cannot be given to a new
// file), the file is rewritten in place instead, which is not crash-safe; a failure then reports
// Failed although the file may be cut short.
WriteResult replaceWholeFile(const std::string& path, std::string_view bytes);

// An exclusive lock for one read-modify-write of a file, held until the object is destroyed.
//
// Editors that take it one after another never lose each other's changes; readers take no lock
// and see the old or the new file whole, because files are replaced whole. The lock is released
// when its holder's process dies, so nothing stale stays in the way.
// - POSIX: the operating system's lock on the file itself (no lock file is created). Since a save
//   puts a new file in the old one's place, a lock taken on the old file protects nothing once it
//   is replaced: after acquiring, the lock checks that the name still leads to the locked file and
//   otherwise starts again on the new one.
// - Windows: a companion file "<name>.lock" beside the file (links resolved), created without
//   sharing and deleted when closed, so it exists only while an edit runs. The file itself cannot
//   carry the lock: a handle held open on it would keep the save's rename from replacing it.
//   Readers that find the file missing or in use while its lock file exists wait briefly for the
//   save to finish (some systems replace a file in two steps). Since the system cannot wait for a
//   file to be closed, editors poll for the lock file; threads of one process first queue in the
//   order they came, so only one of them polls and none is passed over until its wait runs out.
class EditLock {
public:
    enum class Result {
        Locked,       // the lock is held
        Unavailable,  // no lock can be taken (POSIX: no such file yet, not a regular file, a file
                      // system without locks; Windows: a folder where the lock file cannot be
                      // created, a device): the caller goes on without one, as before
        TimedOut,     // another editor held it for longer than the wait allowed
    };

    EditLock() = default;
    EditLock(const EditLock&) = delete;
    EditLock& operator=(const EditLock&) = delete;
    ~EditLock();

    Result acquire(const std::string& path, std::chrono::milliseconds wait);

private:
    std::intptr_t handle_ = -1;  // a descriptor on POSIX, a HANDLE on Windows
#if defined(_WIN32)
    Result takeLockFile(const std::wstring& lockName,
                        std::chrono::steady_clock::time_point deadline);
    std::wstring queue_;  // the lock file whose queue of this process's editors it heads
#endif
};

}  // namespace quelworks::platform

#endif  // QUELWORKS_SRC_PLATFORM_FILE_H
