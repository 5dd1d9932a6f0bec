#include "port_select.h"

#include <cstdio>
#include <cstdlib>

#include "progress.h"

namespace quelworks::cli {

bool globMatch(const std::string& pattern, const std::string& text) {
    // Iterative matching with one backtrack point: linear in practice, never exponential.
    std::size_t p = 0, t = 0, starP = std::string::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            ++p;
            ++t;
        } else if (p < pattern.size() && pattern[p] == '*') {
            starP = p++;
            starT = t;
        } else if (starP != std::string::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*') ++p;
    return p == pattern.size();
}

bool parseVidPid(const std::string& pattern, int* vendorId, int* productId) {
    if (pattern.size() != 9 || pattern[4] != ':') return false;
    auto hex4 = [&](std::size_t at, int* out) {
        int value = 0;
        for (std::size_t i = at; i < at + 4; ++i) {
            char c = pattern[i];
            int digit = c >= '0' && c <= '9'   ? c - '0'
                        : c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                               : -1;
            if (digit < 0) return false;
            value = value * 16 + digit;
        }
        *out = value;
        return true;
    };
    return hex4(0, vendorId) && hex4(5, productId);
}

bool portMatches(const PortDetails& port, const std::string& pattern) {
    if (pattern.empty()) return false;
    int vendorId = 0, productId = 0;
    if (parseVidPid(pattern, &vendorId, &productId))
        return port.vendorId == vendorId && port.productId == productId;
    if (!port.serialNumber.empty() && port.serialNumber == pattern) return true;
    if (globMatch(pattern, port.name)) return true;
    std::size_t slash = port.name.find_last_of("/\\");
    return slash != std::string::npos && globMatch(pattern, port.name.substr(slash + 1));
}

bool isPathPattern(const std::string& pattern) {
    return pattern.find('/') != std::string::npos;
}

std::string formatVidPid(int vendorId, int productId) {
    if (vendorId < 0 || productId < 0) return "";
    char text[16];
    std::snprintf(text, sizeof text, "%04x:%04x", static_cast<unsigned>(vendorId) & 0xFFFFu,
                  static_cast<unsigned>(productId) & 0xFFFFu);
    return text;
}

std::string deviceRow(const std::string& port, const std::string& serial, long long done,
                      long long total, double rate, const std::string& state, int portWidth,
                      int columns) {
    auto padded = [](std::string text, std::size_t width) {
        if (text.size() < width) text.append(width - text.size(), ' ');
        return text;
    };
    std::string row = padded(port, static_cast<std::size_t>(portWidth)) + "  " +
                      padded(serial.empty() ? "-" : serial, 10) + "  ";
    constexpr int kBarWidth = 20;
    int filled = total > 0 ? static_cast<int>(done * kBarWidth / total) : 0;
    if (filled > kBarWidth) filled = kBarWidth;
    row += "[" + std::string(static_cast<std::size_t>(filled), '#') +
           std::string(static_cast<std::size_t>(kBarWidth - filled), '.') + "]";
    char percent[16];
    std::snprintf(percent, sizeof percent, " %3d%%  ",
                  total > 0 ? static_cast<int>(done * 100 / total) : 0);
    row += percent;
    row += padded(rate > 0 ? formatRate(rate) : "", 12) + "  " + state;
    // The last column stays free so that the cursor never wraps.
    if (columns > 1 && row.size() > static_cast<std::size_t>(columns - 1))
        row.resize(static_cast<std::size_t>(columns - 1));
    return row;
}

}  // namespace quelworks::cli
