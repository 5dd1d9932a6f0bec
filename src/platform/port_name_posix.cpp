#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "platform/port_name.h"

namespace quelworks {

PortNameCheck CheckPortName(const std::string& name) {
    PortNameCheck check;
    std::string bare = name;
    // "//./COM3" names the device COM3, as on Windows.
    if (bare.rfind("//./", 0) == 0 || bare.rfind("\\\\.\\", 0) == 0) bare.erase(0, 4);
    check.bareName = bare.find('/') == std::string::npos;
    check.path = check.bareName ? "/dev/" + bare : bare;
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
