// Names on POSIX are bytes: the UTF-8 flag is kept only so that callers behave the same everywhere.
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

std::FILE* openFile(const char* name, const char* mode) {
    if (name == nullptr || mode == nullptr) return nullptr;
    return std::fopen(name, mode);
}

std::filesystem::path pathFromName(const char* name) {
    return name != nullptr ? std::filesystem::path(name) : std::filesystem::path();
}

}  // namespace quelworks::detail
