// Serial port listing on Linux, from /sys/class/tty.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "platform/serial_port.h"
#include "platform/serial_ports_posix.h"

namespace quelworks::detail {

bool naturalLess(const std::string& a, const std::string& b) {
    std::size_t i = 0, j = 0;
    while (i < a.size() && j < b.size()) {
        const bool da = a[i] >= '0' && a[i] <= '9';
        const bool db = b[j] >= '0' && b[j] <= '9';
        if (da && db) {
            std::size_t ei = i, ej = j;
            while (ei < a.size() && a[ei] >= '0' && a[ei] <= '9') ++ei;
            while (ej < b.size() && b[ej] >= '0' && b[ej] <= '9') ++ej;
            // Compare the numbers without leading zeros: by length, then digit by digit.
            std::size_t si = i, sj = j;
            while (si + 1 < ei && a[si] == '0') ++si;
            while (sj + 1 < ej && b[sj] == '0') ++sj;
            if (ei - si != ej - sj) return ei - si < ej - sj;
            int c = a.compare(si, ei - si, b, sj, ej - sj);
            if (c != 0) return c < 0;
            if (ei - i != ej - j) return ei - i < ej - j;  // fewer leading zeros first
            i = ei;
            j = ej;
        } else {
            if (a[i] != b[j])
                return static_cast<unsigned char>(a[i]) < static_cast<unsigned char>(b[j]);
            ++i;
            ++j;
        }
    }
    return a.size() - i < b.size() - j;
}

std::vector<std::string> listSerialDevices(const std::string& sysClassTty,
                                           const std::string& devRoot) {
    std::vector<std::string> names;
    DIR* dir = ::opendir(sysClassTty.c_str());
    if (dir == nullptr) return names;
    while (dirent* entry = ::readdir(dir)) {
        std::string name = entry->d_name;
        if (name.empty() || name[0] == '.') continue;
        const std::string base = sysClassTty + "/" + name;
        struct stat st;
        // Virtual terminals, pseudo-terminals and the console have no device behind them.
        if (::stat((base + "/device").c_str(), &st) != 0) continue;
        std::ifstream type(base + "/type");
        if (type) {
            int portType = -1;
            if (type >> portType && portType == 0) continue;  // no UART at this address
        }
        names.push_back(name);
    }
    ::closedir(dir);
    std::sort(names.begin(), names.end(), naturalLess);
    for (std::string& name : names) name = devRoot + "/" + name;
    return names;
}

namespace {

// The first line of a sysfs attribute, without its line end; empty if it cannot be read.
std::string readAttribute(const std::string& path) {
    std::ifstream file(path);
    std::string line;
    if (!file || !std::getline(file, line)) return "";
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
        line.pop_back();
    return line;
}

int readHexId(const std::string& path) {
    std::string text = readAttribute(path);
    if (text.empty() || text.size() > 4) return -1;
    char* end = nullptr;
    long value = std::strtol(text.c_str(), &end, 16);
    return *end == '\0' ? static_cast<int>(value) : -1;
}

std::string baseName(const std::string& path) {
    std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string parentOf(const std::string& path) {
    std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

std::string linkTarget(const std::string& path) {
    char target[4096];
    ssize_t length = ::readlink(path.c_str(), target, sizeof target - 1);
    return length > 0 ? std::string(target, static_cast<std::size_t>(length)) : "";
}

bool exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The chip names of the serial core's port types, as far as a user would recognise them.
std::string uartTypeName(int type) {
    static const char* const names[] = {
        "",        "8250",     "16450",  "16550", "16550A", "Cirrus", "ST16650",  "ST16650V2",
        "TI16750", "Startech", "16C950", "16654", "16850",  "RSA",    "NS16550A", "XScale"};
    if (type > 0 && type < static_cast<int>(sizeof names / sizeof names[0])) return names[type];
    return "";
}

// How far up from the port's device the walk looks for the USB device and the driver: an
// interface, a USB device and a hub or two, never into unrelated parts of the tree.
constexpr int kMaxLevelsUp = 6;

PortDetails describe(const std::string& base, const std::string& path) {
    PortDetails details;
    details.name = path;
    char resolved[PATH_MAX];
    if (::realpath((base + "/device").c_str(), resolved) == nullptr) return details;
    std::string dir = resolved, child;
    bool usb = false;
    std::string firstWithDriver;
    for (int level = 0; level <= kMaxLevelsUp && dir != "/"; ++level) {
        // Serial-core ports (newer kernels) sit on the serial-base bus below the real device:
        // its "port" and "ctrl" drivers say nothing about the hardware.
        std::string driver = linkTarget(dir + "/driver");
        if (details.driver.empty() && !driver.empty() &&
            driver.find("/serial-base/") == std::string::npos) {
            details.driver = baseName(driver);
            firstWithDriver = dir;
        }
        if (exists(dir + "/idVendor")) {
            usb = true;
            details.vendorId = readHexId(dir + "/idVendor");
            details.productId = readHexId(dir + "/idProduct");
            details.serialNumber = readAttribute(dir + "/serial");
            details.manufacturer = readAttribute(dir + "/manufacturer");
            details.product = readAttribute(dir + "/product");
            details.location = child.empty() ? baseName(dir) : baseName(child);
            if (!child.empty()) details.description = readAttribute(child + "/interface");
            break;
        }
        child = dir;
        dir = parentOf(dir);
    }
    if (usb) {
        if (!details.product.empty()) details.description = details.product;
        if (details.description.empty()) details.description = "USB serial port";
        return details;
    }
    if (!firstWithDriver.empty()) details.location = baseName(firstWithDriver);
    std::string type = readAttribute(base + "/type");
    std::string chip = type.empty() ? "" : uartTypeName(std::atoi(type.c_str()));
    details.description = chip.empty() ? "serial port" : chip + " UART";
    return details;
}

}  // namespace

std::vector<PortDetails> listSerialDeviceDetails(const std::string& sysClassTty,
                                                 const std::string& devRoot) {
    std::vector<PortDetails> result;
    for (const std::string& path : listSerialDevices(sysClassTty, devRoot))
        result.push_back(describe(sysClassTty + "/" + baseName(path), path));
    return result;
}

std::vector<PortDetails> listPortDetails() {
    return listSerialDeviceDetails("/sys/class/tty", "/dev");
}

void listPorts(RList<char*>* ports) {
    if (ports == nullptr) return;
    for (const std::string& path : listSerialDevices("/sys/class/tty", "/dev")) {
        char* text = static_cast<char*>(std::malloc(path.size() + 1));
        if (text == nullptr) return;
        std::memcpy(text, path.c_str(), path.size() + 1);
        ports->push_back(text);
    }
}

}  // namespace quelworks::detail
