#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/port_name.h"

namespace quelworks {

namespace {

// "//./COM3" names the device COM3, as on Windows.
std::string withoutDevicePrefix(const std::string& name) {
    if (name.rfind("//./", 0) == 0 || name.rfind("\\\\.\\", 0) == 0) return name.substr(4);
    return name;
}

}  // namespace

// On this system a name without '/' is a node in /dev and a name with '/' is a path.
std::string ResolvePortPath(const std::string& name) {
    std::string bare = withoutDevicePrefix(name);
    if (bare.empty()) return bare;
    return bare.find('/') == std::string::npos ? "/dev/" + bare : bare;
}

PortNameCheck CheckPortName(const std::string& name) {
    PortNameCheck check;
    std::string bare = withoutDevicePrefix(name);
    check.bareName = bare.find('/') == std::string::npos;
    check.path = ResolvePortPath(name);
    struct stat info;
    if (bare.empty() || ::stat(check.path.c_str(), &info) != 0) {
        check.status = PortNameCheck::Status::Missing;
        check.error = std::strerror(bare.empty() ? ENOENT : errno);
        return check;
    }
    if (!S_ISCHR(info.st_mode)) {
        check.status = PortNameCheck::Status::NotSerial;
        return check;
    }
    int fd = ::open(check.path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        check.status = PortNameCheck::Status::Unknown;  // the open of the port will say why
        return check;
    }
    check.status = ::isatty(fd) ? PortNameCheck::Status::Serial : PortNameCheck::Status::NotSerial;
    ::close(fd);
    return check;
}

}  // namespace quelworks
