// Whole-file reading, crash-safe replacing and edit locks on POSIX.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#if defined(__linux__)
#include <sys/xattr.h>
#endif

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

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
    void adopt(int fd) {
        reset();
        fd_ = fd;
    }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
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

// Opens without ever blocking (a FIFO without a writer would block a plain open), then makes
// the descriptor blocking again for the reads and writes that follow.
int openNonBlocking(const char* path, int flags, mode_t mode = 0) {
    int fd = ::open(path, flags | O_NONBLOCK | O_CLOEXEC, mode);
    if (fd >= 0) {
        int fl = ::fcntl(fd, F_GETFL);
        if (fl != -1) ::fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
    }
    return fd;
}

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

// The name a path finally leads to once every symbolic link in its last component is followed,
// kept relative when the path is relative (no absolute path is built, so a deep path that
// works for open() works here too). Empty when a link cannot be read or links loop.
std::string followLinks(std::string path) {
    for (int hops = 0; hops < 40; ++hops) {
        struct stat st {};
        if (::lstat(path.c_str(), &st) != 0) return std::string();
        if (!S_ISLNK(st.st_mode)) return path;
        std::vector<char> target(static_cast<std::size_t>(st.st_size > 0 ? st.st_size : PATH_MAX) +
                                 1);
        ssize_t n = ::readlink(path.c_str(), target.data(), target.size());
        if (n < 0 || static_cast<std::size_t>(n) >= target.size()) return std::string();
        std::string link(target.data(), static_cast<std::size_t>(n));
        if (!link.empty() && link[0] == '/') {
            path = link;
        } else {
            std::size_t slash = path.rfind('/');
            path = (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) + link;
        }
    }
    return std::string();
}

// Where the new bytes go before they take the old file's place: an unnamed file in the target's
// folder where the system offers one (a crash while writing then leaves nothing behind), else a
// short hidden name that always fits the folder's name limit.
class TempFile {
public:
    explicit TempFile(int folder) : folder_(folder) {}
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;
    ~TempFile() {
        fd_.reset();
        if (!name_.empty()) ::unlinkat(folder_, name_.c_str(), 0);
    }

    bool open() {
#if defined(O_TMPFILE)
        int fd = ::openat(folder_, ".", O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600);
        if (fd >= 0) {
            // Naming it later goes through /proc; without /proc a named file is used instead.
            if (::access("/proc/self/fd", X_OK) == 0) {
                fd_.adopt(fd);
                unnamed_ = true;
                return true;
            }
            ::close(fd);
        }
#endif
        return makeNamed(fd_);
    }

    int fd() const {
        return fd_.get();
    }

    // Flushes the bytes to disk and closes; false on a late write error.
    bool finish() {
        return ::fsync(fd_.get()) == 0 && (unnamed_ ? true : fd_.reset());
    }

    // Puts the file in place of `target` (a name in the folder).
    bool moveOnto(const std::string& target) {
        if (unnamed_) {
            // Give the unnamed file a short name, then rename it over the target: linkat cannot
            // replace an existing name. Without /proc the named way is taken instead.
            std::string name;
            char proc[64];
            std::snprintf(proc, sizeof proc, "/proc/self/fd/%d", fd_.get());
            for (int attempt = 0; attempt < 100; ++attempt) {
                name = randomName();
                if (::linkat(AT_FDCWD, proc, folder_, name.c_str(), AT_SYMLINK_FOLLOW) == 0) break;
                if (errno != EEXIST) return false;
                name.clear();
            }
            if (name.empty()) return false;
            name_ = name;
            fd_.reset();
        }
        if (::renameat(folder_, name_.c_str(), folder_, target.c_str()) != 0) return false;
        name_.clear();
        return true;
    }

private:
    static std::string randomName() {
        static thread_local std::mt19937_64 rng{
            std::random_device{}() ^ std::hash<std::thread::id>{}(std::this_thread::get_id())};
        static const char kChars[] =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";
        std::string name = ".qw";
        for (int i = 0; i < 8; ++i) name.push_back(kChars[rng() % (sizeof kChars - 1)]);
        return name;
    }

    bool makeNamed(Fd& out) {
        for (int attempt = 0; attempt < 100; ++attempt) {
            std::string name = randomName();
            int fd = ::openat(folder_, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
            if (fd >= 0) {
                out.adopt(fd);
                name_ = name;
                return true;
            }
            if (errno != EEXIST) return false;
        }
        return false;
    }

    int folder_;
    Fd fd_{-1};
    std::string name_;
    bool unnamed_ = false;
};

#if defined(__linux__)
// Copies every extended attribute (access lists, security labels, user attributes) from one
// open file to another; false when one cannot be read or set.
bool copyAttributes(int from, int to) {
    ssize_t size = ::flistxattr(from, nullptr, 0);
    if (size < 0) return errno == ENOTSUP;
    if (size == 0) return true;
    std::vector<char> names(static_cast<std::size_t>(size));
    size = ::flistxattr(from, names.data(), names.size());
    if (size < 0) return false;
    std::vector<char> value;
    for (ssize_t i = 0; i < size;) {
        const char* name = names.data() + i;
        i += static_cast<ssize_t>(std::strlen(name)) + 1;
        ssize_t n = ::fgetxattr(from, name, nullptr, 0);
        if (n < 0) return false;
        value.resize(static_cast<std::size_t>(n) + 1);
        n = ::fgetxattr(from, name, value.data(), value.size());
        if (n < 0 || ::fsetxattr(to, name, value.data(), static_cast<std::size_t>(n), 0) != 0) {
            return false;
        }
    }
    return true;
}
#else
bool copyAttributes(int, int) {
    return true;
}
#endif

}  // namespace

bool readWholeFile(const std::string& path, FileBytes& contents) {
    Fd fd(openNonBlocking(path.c_str(), O_RDONLY));
    if (!fd.valid()) return false;
    struct stat st {};
    if (::fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode)) return false;

    // Read in one go; a file that grows meanwhile in further chunks until the end.
    std::size_t capacity = static_cast<std::size_t>(st.st_size) + 1;
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
    Fd target(openNonBlocking(path.c_str(), O_WRONLY | O_CREAT, 0666));
    if (!target.valid()) return WriteResult::CannotOpen;
    struct stat st {};
    if (::fstat(target.get(), &st) != 0) return WriteResult::Failed;
    bool regular = S_ISREG(st.st_mode);
    // Replacing one name of a file with several hard links would split it from the others.
    if (!regular || st.st_nlink > 1) return writeInPlace(target.get(), regular, bytes);

    // Follow symbolic links to the file itself, so the link stays and its target is replaced.
    // The folder is opened once and every later step names the file relative to it.
    std::string real = followLinks(path);
    if (real.empty()) return writeInPlace(target.get(), regular, bytes);
    std::size_t slash = real.rfind('/');
    std::string folderName = slash == std::string::npos ? std::string(".")
                             : slash == 0               ? std::string("/")
                                                        : real.substr(0, slash);
    std::string base = slash == std::string::npos ? real : real.substr(slash + 1);
    Fd folder(::open(folderName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) return writeInPlace(target.get(), regular, bytes);

    TempFile temp(folder.get());
    if (!temp.open()) return writeInPlace(target.get(), regular, bytes);

    // The new file gets the old one's owner, group, permissions and extended attributes; when
    // one of them cannot be given to it, rewriting in place is the only way not to change it.
    // A new file's group can differ from the process's (a set-group-id folder), so the new
    // file's own ids are what is compared.
    struct stat made {};
    if (::fstat(temp.fd(), &made) != 0) return writeInPlace(target.get(), regular, bytes);
    if ((made.st_uid != st.st_uid || made.st_gid != st.st_gid) &&
        ::fchown(temp.fd(), st.st_uid, st.st_gid) != 0) {
        return writeInPlace(target.get(), regular, bytes);
    }
    if (::fchmod(temp.fd(), st.st_mode & 07777) != 0 || !copyAttributes(target.get(), temp.fd())) {
        return writeInPlace(target.get(), regular, bytes);
    }
    if (!writeAll(temp.fd(), bytes) || !temp.finish()) return WriteResult::Failed;
    if (!temp.moveOnto(base)) return writeInPlace(target.get(), regular, bytes);
    // Make the rename itself durable.
    ::fsync(folder.get());
    return WriteResult::Written;
}

EditLock::~EditLock() {
    if (handle_ >= 0) ::close(static_cast<int>(handle_));
}

EditLock::Result EditLock::acquire(const std::string& path, std::chrono::milliseconds wait) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + wait;
    std::chrono::microseconds pause(200);
    for (;;) {
        // Each lock has its own open file description, so threads of one process exclude each
        // other as processes do (flock locks belong to the description, not to the process).
        Fd fd(openNonBlocking(path.c_str(), O_RDONLY));
        if (!fd.valid()) return Result::Unavailable;
        struct stat locked {};
        if (::fstat(fd.get(), &locked) != 0 || !S_ISREG(locked.st_mode)) {
            return Result::Unavailable;
        }
        for (;;) {
            if (::flock(fd.get(), LOCK_EX | LOCK_NB) == 0) break;
            if (errno == EINTR) continue;
            if (errno != EWOULDBLOCK) return Result::Unavailable;  // no locks on this file system
            if (Clock::now() >= deadline) return Result::TimedOut;
            std::this_thread::sleep_for(pause);
            if (pause < std::chrono::milliseconds(4)) pause *= 2;
        }
        // The previous holder may have replaced the file: then the name leads elsewhere and the
        // lock just taken guards a file nobody will read again.
        struct stat now {};
        if (::stat(path.c_str(), &now) == 0 && now.st_dev == locked.st_dev &&
            now.st_ino == locked.st_ino) {
            handle_ = fd.release();
            return Result::Locked;
        }
        if (Clock::now() >= deadline) return Result::TimedOut;
    }
}

}  // namespace quelworks::platform
