#include "quelworks/util/linear_interpolation.h"

#include <cfloat>
#include <cstdio>
#include <sstream>
#include <stdexcept>
#include <string>

#include "platform/locale.h"
#include "platform/system_name.h"

namespace {

// Bounds of an empty table: minimum above maximum, so that every lookup falls outside.
constexpr float kEmptyMin = FLT_MAX;
constexpr float kEmptyMax = 0.0f;

// Replaces every `from` in `text` by `to` (both one character here, and never equal).
void replaceAll(std::string& text, const std::string& from, const std::string& to) {
    if (from.empty() || from == to) return;
    std::string::size_type pos = 0;
    while ((pos = text.find(from, pos)) != std::string::npos) {
        text.replace(pos, from.size(), to);
        pos += to.size();
    }
}

// A field as a float in the global locale, after both ',' and '.' became the user's separator.
// Leading white space is skipped, reading stops at the first character that cannot continue the
// number, and a field that does not start with a number gives 0.
float readNumber(std::string field, const std::string& separator) {
    replaceAll(field, ",", separator);
    replaceAll(field, ".", separator);
    std::istringstream in(field);
    float value = 0.0f;
    in >> value;
    return value;
}

}  // namespace

LinearInterpolation::LinearInterpolation()
    : minX(kEmptyMin), maxX(kEmptyMax), minY(kEmptyMin), maxY(kEmptyMax) {}

LinearInterpolation::LinearInterpolation(const LinearInterpolation& other) = default;

LinearInterpolation& LinearInterpolation::operator=(const LinearInterpolation& other) = default;

LinearInterpolation::LinearInterpolation(LinearInterpolation&& other) noexcept
    : table(std::move(other.table)),
      minX(other.minX),
      maxX(other.maxX),
      minY(other.minY),
      maxY(other.maxY) {
    other.table.clear();
}

LinearInterpolation& LinearInterpolation::operator=(LinearInterpolation&& other) noexcept {
    if (this != &other) {
        std::vector<std::pair<float, float>>().swap(table);
        table.swap(other.table);
    }
    minX = other.minX;
    maxX = other.maxX;
    minY = other.minY;
    maxY = other.maxY;
    return *this;
}

LinearInterpolation::~LinearInterpolation() = default;

bool LinearInterpolation::InitLUT(char* fileName, float xScale, float yScale, float* maxXOut,
                                  float* minXOut, float* maxYOut, float* minYOut) {
    try {
        std::vector<std::pair<float, float>>().swap(table);

        // Read in binary and drop one CR before each LF, so that a CR LF file reads the same on
        // every system. A line is used only when it was ended by a line feed.
        std::vector<std::string> lines;
        // Only a regular file is read (a FIFO would block); anything else reads as no lines,
        // as a file that cannot be opened does.
        if (std::FILE* file =
                fileName != nullptr ? quelworks::detail::openRegularFile(fileName) : nullptr) {
            std::string text;
            char chunk[65536];
            for (std::size_t got; (got = std::fread(chunk, 1, sizeof chunk, file)) > 0;) {
                text.append(chunk, got);
            }
            std::fclose(file);
            for (std::size_t start = 0, end; (end = text.find('\n', start)) != std::string::npos;
                 start = end + 1) {
                std::string line = text.substr(start, end - start);
                if (!line.empty() && line.back() == '\r') line.pop_back();
                lines.push_back(std::move(line));
            }
        }

        minX = minY = kEmptyMin;
        maxX = maxY = kEmptyMax;
        const std::string separator = quelworks::platform::userDecimalSeparator();

        std::size_t lineNumber = 0;
        for (const std::string& line : lines) {
            ++lineNumber;
            if (line.empty()) continue;
            // Fields are read one after another up to each ';', so a trailing ';' adds no empty
            // field: "5;" is a line of one field, like "5".
            std::istringstream fields(line);
            std::string xText;
            std::string yText;
            std::getline(fields, xText, ';');
            if (!std::getline(fields, yText, ';')) {
                throw std::out_of_range("lookup table " + std::string(fileName) + ", line " +
                                        std::to_string(lineNumber) + ": no ';' between x and y");
            }
            const float x = readNumber(std::move(xText), separator) * xScale;
            const float y = readNumber(std::move(yText), separator) * yScale;
            if (x < minX) minX = x;
            if (x > maxX) maxX = x;
            if (y < minY) minY = y;
            if (y > maxY) maxY = y;
            table.emplace_back(x, y);
        }

        if (maxXOut != nullptr) *maxXOut = maxX;
        if (minXOut != nullptr) *minXOut = minX;
        if (maxYOut != nullptr) *maxYOut = maxY;
        if (minYOut != nullptr) *minYOut = minY;
        return true;
    } catch (int) {
        // An error code thrown as a plain int means "not loaded"; every other error goes to the
        // caller.
        return false;
    }
}

bool LinearInterpolation::InitLUT(char* fileName, float xScale, float yScale) {
    return InitLUT(fileName, xScale, yScale, nullptr, nullptr, nullptr, nullptr);
}

float LinearInterpolation::GetyValue(float x, bool ascending) {
    if (x < minX || x > maxX) return 0.0f;
    std::pair<float, float> lower(0.0f, 0.0f);
    std::pair<float, float> upper(0.0f, 0.0f);
    for (const auto& entry : table) {
        if (entry.first == x) return entry.second;
        if (ascending) {
            if (entry.first > x) {
                upper = entry;
                break;
            }
            lower = entry;
        } else {
            if (entry.first < x) {
                lower = entry;
                break;
            }
            upper = entry;
        }
    }
    // Compares upper's x with lower's y, unlike GetXValue; kept as it has always answered.
    if (upper.first == lower.second) return (upper.second + lower.second) * 0.5f;
    return (upper.second - lower.second) * (x - lower.first) / (upper.first - lower.first) +
           lower.second;
}

float LinearInterpolation::GetyValue(float x) {
    return GetyValue(x, true);
}

float LinearInterpolation::GetXValue(float y, bool ascending) {
    if (y < minY || y > maxY) return 0.0f;
    std::pair<float, float> lower(0.0f, 0.0f);
    std::pair<float, float> upper(0.0f, 0.0f);
    for (const auto& entry : table) {
        if (entry.second == y) return entry.first;
        if (ascending) {
            if (entry.second > y) {
                upper = entry;
                break;
            }
            lower = entry;
        } else {
            if (entry.second < y) {
                lower = entry;
                break;
            }
            upper = entry;
        }
    }
    if (upper.second == lower.second) return (upper.first + lower.first) * 0.5f;
    return (upper.first - lower.first) * (y - lower.second) / (upper.second - lower.second) +
           lower.first;
}

float LinearInterpolation::GetXValue(float y) {
    return GetXValue(y, true);
}

void LinearInterpolation::AddToLUT(float x, float y) {
    table.emplace_back(x, y);
}
