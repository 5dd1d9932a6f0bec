// Serial port listing on Linux, from /sys/class/tty.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
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
