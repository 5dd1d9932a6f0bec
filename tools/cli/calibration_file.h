// Reading calibration files: one calibration point per line, "cx cy dx dy" (camera position,
// then device position), numbers separated by blanks or commas. Blank lines and lines starting
// with '#' are skipped, and a '#' after the four numbers starts a comment. Kept apart from the
// commands so that the tests and the fuzzer can run it on its own.
#ifndef QUELWORKS_TOOLS_CLI_CALIBRATION_FILE_H
#define QUELWORKS_TOOLS_CLI_CALIBRATION_FILE_H

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "polygon_file.h"
#include "quelworks/geometry/shapes.h"

namespace quelworks::cli {

// The most calibration points a file may hold (a 512 x 512 grid).
constexpr std::size_t kMaxCalibrationPoints = 512 * 512;

// The calibration points of a file, with the line each came from (for messages).
struct CalibrationFile {
    std::vector<CalibrationPoint> points;
    std::vector<std::size_t> lines;
};

// Parses `text`. On failure returns false and sets `error` to a one-line message naming the line
// ("line 3: expected four numbers \"cx cy dx dy\", found 3").
inline bool parseCalibrationText(const std::string& text, CalibrationFile& file,
                                 std::string& error) {
    file.points.clear();
    file.lines.clear();
    std::size_t lineNumber = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        ++lineNumber;
        const std::string where = "line " + std::to_string(lineNumber) + ": ";
        std::size_t pos = start;
        while (pos < end && detail::isBlank(text[pos])) ++pos;
        if (pos == end || text[pos] == '#') {
            start = end + 1;
            continue;
        }
        if (std::memchr(text.data() + start, '\0', end - start) != nullptr) {
            error = where + "unexpected NUL byte";
            return false;
        }
        float v[4];
        int found = 0;
        while (found < 4) {
            if (found > 0) {
                const std::size_t gap = pos;
                while (pos < end && detail::isBlank(text[pos])) ++pos;
                if (pos < end && text[pos] == ',') {
                    ++pos;
                    while (pos < end && detail::isBlank(text[pos])) ++pos;
                } else if (pos == gap && pos < end) {
                    error = where + "expected a blank or a comma between the numbers";
                    return false;
                }
                if (pos == end || text[pos] == '#') break;
            }
            if (!detail::readNumber(text, pos, end, v[found])) {
                error = where + "number " + std::to_string(found + 1) +
                        " is not a finite number (expected \"cx cy dx dy\")";
                return false;
            }
            ++found;
        }
        if (found < 4) {
            error = where + "expected four numbers \"cx cy dx dy\", found " + std::to_string(found);
            return false;
        }
        while (pos < end && detail::isBlank(text[pos])) ++pos;
        if (pos != end && text[pos] != '#') {
            error = where + "unexpected text after the four numbers \"cx cy dx dy\"";
            return false;
        }
        if (file.points.size() >= kMaxCalibrationPoints) {
            error = where + "too many calibration points (at most " +
                    std::to_string(kMaxCalibrationPoints) + ")";
            return false;
        }
        file.points.push_back(CalibrationPoint(Vector2f(v[0], v[1]), Vector2f(v[2], v[3])));
        file.lines.push_back(lineNumber);
        start = end + 1;
    }
    return true;
}

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_CALIBRATION_FILE_H
