// Whole-file reading and crash-safe replacing on POSIX.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/file.h"

namespace quelworks::platform {
namespace {

// Closes a descriptor when it goes out of scope.
class Fd {
public:
    explicit Fd(int fd) : fd_(fd) {}
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    // Closes now and reports whether the close succeeded (a late write error shows up here on
    // some file systems).
    bool reset() {
        if (fd_ < 0) return true;
        int rc = ::close(fd_);
        fd_ = -1;
        return rc == 0;
    }

private:
    int fd_;
};

bool writeAll(int fd, std::string_view bytes) {
    const char* p = bytes.data();
    std::size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        left -= static_cast<std::size_t>(n);
    }
    return true;
}

WriteResult writeInPlace(int fd, bool regular, std::string_view bytes) {
    if (regular && (::ftruncate(fd, 0) != 0 || ::lseek(fd, 0, SEEK_SET) != 0)) {
        return WriteResult::Failed;
    }
    if (!writeAll(fd, bytes)) return WriteResult::Failed;
    if (regular && ::fsync(fd) != 0) return WriteResult::Failed;
    return WriteResult::Written;
}

std::string realPath(const std::string& path) {
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr) return std::string();
    std::string result(resolved);
    std::free(resolved);
    return result;
}

}  // namespace

bool readWholeFile(const std::string& path, FileBytes& contents) {
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) return false;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || S_ISDIR(st.st_mode)) return false;

    // A regular file is read in one go; a pipe or device, or a file that grows meanwhile, in
    // further chunks until the end.
    std::size_t capacity = S_ISREG(st.st_mode) ? static_cast<std::size_t>(st.st_size) + 1 : 65536;
    std::unique_ptr<char[]> data(new char[capacity]);
    std::size_t used = 0;
    for (;;) {
        if (used == capacity) {
            std::unique_ptr<char[]> bigger(new char[capacity * 2]);
            std::memcpy(bigger.get(), data.get(), used);
            data.swap(bigger);
            capacity *= 2;
        }
        ssize_t n = ::read(fd.get(), data.get() + used, capacity - used);
        if (n < 0) {
            if (errno == EINTR) continue;
            break;  // a read error ends the file, as it ends a stream
        }
        if (n == 0) break;
        used += static_cast<std::size_t>(n);
    }
    contents.data = std::move(data);
    contents.size = used;
    return true;
}

WriteResult replaceWholeFile(const std::string& path, std::string_view bytes) {
    // Opening without truncating tells whether the file can be written at all, and creates it
    // when it is missing, while an existing file keeps its bytes until the new ones are safe.
    Fd target(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
    if (!target.valid()) return WriteResult::CannotOpen;
    struct stat st {};
    if (::fstat(target.get(), &st) != 0) return WriteResult::Failed;
    bool regular = S_ISREG(st.st_mode);
    // Replacing one name of a file with several hard links would split it from the others.
    if (!regular || st.st_nlink > 1) return writeInPlace(target.get(), regular, bytes);

    // Follow symbolic links to the file itself, so the link stays and its target is replaced.
    std::string real = realPath(path);
    if (real.empty()) return writeInPlace(target.get(), regular, bytes);
    std::size_t slash = real.rfind('/');
    std::string temp = real.substr(0, slash + 1) + "." + real.substr(slash + 1) + ".XXXXXX";
    Fd tempFd(::mkostemp(&temp[0], O_CLOEXEC));
    if (!tempFd.valid()) return writeInPlace(target.get(), regular, bytes);

    auto discard = [&](WriteResult result) {
        tempFd.reset();
        ::unlink(temp.c_str());
        return result;
    };
    // The new file gets the old one's permissions and owner; when the owner cannot be kept,
    // rewriting in place is the only way not to change it.
    if ((st.st_uid != ::geteuid() || st.st_gid != ::getegid()) &&
        ::fchown(tempFd.get(), st.st_uid, st.st_gid) != 0) {
        discard(WriteResult::Failed);
        return writeInPlace(target.get(), regular, bytes);
    }
    if (::fchmod(tempFd.get(), st.st_mode & 07777) != 0) {
        discard(WriteResult::Failed);
        return writeInPlace(target.get(), regular, bytes);
    }
    if (!writeAll(tempFd.get(), bytes) || ::fsync(tempFd.get()) != 0 || !tempFd.reset()) {
        return discard(WriteResult::Failed);
    }
    if (::rename(temp.c_str(), real.c_str()) != 0) {
        discard(WriteResult::Failed);
        return writeInPlace(target.get(), regular, bytes);
    }
    // Make the rename itself durable.
    Fd folder(::open(real.substr(0, slash + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.valid()) ::fsync(folder.get());
    return WriteResult::Written;
}

}  // namespace quelworks::platform
