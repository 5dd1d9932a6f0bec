// Names of files and ports on their way to the operating system.
//
// The C++ interface takes narrow names with the system's own meaning: bytes on POSIX, the ANSI
// code page on Windows. The C interface takes UTF-8. A Utf8NameScope marks, for the calling thread
// and until it ends, that the narrow names handed to the platform layer are UTF-8; the Windows
// backends turn every name into UTF-16 through systemName() and call the wide-character functions,
// so that any name works whatever the ANSI code page. On POSIX names are bytes either way.
#ifndef QUELWORKS_SRC_PLATFORM_SYSTEM_NAME_H
#define QUELWORKS_SRC_PLATFORM_SYSTEM_NAME_H

#include <cstdio>
#include <filesystem>
#include <string>

namespace quelworks::detail {

class Utf8NameScope {
public:
    Utf8NameScope() noexcept;
    ~Utf8NameScope();
    Utf8NameScope(const Utf8NameScope&) = delete;
    Utf8NameScope& operator=(const Utf8NameScope&) = delete;

private:
    bool previous;
};

// Whether the calling thread's names are UTF-8 right now.
bool namesAreUtf8() noexcept;

// fopen for a narrow name with the calling thread's meaning (null when it cannot be opened).
std::FILE* openFile(const char* name, const char* mode);
// Opens an existing regular file for reading in binary ("rb"), with the same name rules. A folder,
// FIFO, device or socket is refused at once (null), and opening never blocks.
std::FILE* openRegularFile(const char* name);
// The name as a path for the standard library's file streams (empty when it is not valid).
std::filesystem::path pathFromName(const char* name);

#if defined(_WIN32)
// The name in UTF-16, read as UTF-8 or as the ANSI code page, whichever the calling thread's
// names are. False when the bytes are not valid in that encoding (a UTF-8 name with a broken
// sequence): such a name opens nothing.
bool systemName(const char* name, std::wstring* wide);
// The reverse, for names the system hands back (temporary and resolved file names).
bool narrowName(const wchar_t* wide, std::string* name);
#endif

}  // namespace quelworks::detail

#endif  // QUELWORKS_SRC_PLATFORM_SYSTEM_NAME_H
