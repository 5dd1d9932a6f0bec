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

}  // namespace quelworks::detail
