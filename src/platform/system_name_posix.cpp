// Names on POSIX are bytes: the UTF-8 flag is kept only so that callers behave the same everywhere.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/system_name.h"

namespace quelworks::detail {
namespace {
thread_local bool utf8Names = false;
}

Utf8NameScope::Utf8NameScope() noexcept : previous(utf8Names) {
    utf8Names = true;
}

Utf8NameScope::~Utf8NameScope() {
    utf8Names = previous;
}

bool namesAreUtf8() noexcept {
    return utf8Names;
}

std::FILE* openRegularFile(const char* name) {
    if (name == nullptr) return nullptr;
    // Non-blocking, so that a FIFO without a writer cannot hold the caller; then checked.
    int fd = ::open(name, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return nullptr;
    struct stat st {};
    int flags = ::fcntl(fd, F_GETFL);
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || flags == -1 ||
        ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK) != 0) {
        ::close(fd);
        return nullptr;
    }
    std::FILE* file = ::fdopen(fd, "rb");
    if (file == nullptr) ::close(fd);
    return file;
}

std::FILE* openFile(const char* name, const char* mode) {
    if (name == nullptr || mode == nullptr) return nullptr;
    return std::fopen(name, mode);
}

std::filesystem::path pathFromName(const char* name) {
    return name != nullptr ? std::filesystem::path(name) : std::filesystem::path();
}

}  // namespace quelworks::detail
