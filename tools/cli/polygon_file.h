// Reading polygon outlines from text: one vertex per line, as "x y" or "x,y" (blanks around the
// comma allowed). Blank lines and lines starting with '#' are skipped. Kept apart from the
// commands so that the tests and the fuzzer can run it on its own.
#ifndef QUELWORKS_TOOLS_CLI_POLYGON_FILE_H
#define QUELWORKS_TOOLS_CLI_POLYGON_FILE_H

#include <charconv>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include "quelworks/geometry/vector2f.h"

namespace quelworks::cli {

// The most vertices a file may hold.
constexpr std::size_t kMaxPolygonVertices = 1000000;

namespace detail {

inline bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

// Reads one finite number at text[pos...], moving pos past it.
inline bool readNumber(const std::string& text, std::size_t& pos, std::size_t end, float& value) {
    const char* first = text.data() + pos;
    const char* last = text.data() + end;
    if (first < last && *first == '+') ++first;  // from_chars does not take a leading '+'
    const std::from_chars_result r = std::from_chars(first, last, value);
    if (r.ec != std::errc() || r.ptr == first || !std::isfinite(value)) return false;
    pos = static_cast<std::size_t>(r.ptr - text.data());
    return true;
}

}  // namespace detail

// Parses `text` into `vertices`. On failure returns false and sets `error` to a one-line
// message naming the line ("line 3: expected two numbers, \"x y\" or \"x,y\"").
inline bool parsePolygonText(const std::string& text, std::vector<pointf>& vertices,
                             std::string& error) {
    vertices.clear();
    std::size_t lineNumber = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        ++lineNumber;
        std::size_t pos = start;
        while (pos < end && detail::isBlank(text[pos])) ++pos;
        const std::size_t next = end + 1;
        if (pos == end || text[pos] == '#') {
            start = next;
            continue;
        }
        // Only this line is searched, so reading stays linear in the size of the text.
        if (std::memchr(text.data() + start, '\0', end - start) != nullptr) {
            error = "line " + std::to_string(lineNumber) + ": unexpected NUL byte";
            return false;
        }
        const std::string where = "line " + std::to_string(lineNumber) + ": ";
        float x = 0.0f;
        float y = 0.0f;
        if (!detail::readNumber(text, pos, end, x)) {
            error = where + "expected two numbers, \"x y\" or \"x,y\"";
            return false;
        }
        std::size_t gap = pos;
        while (pos < end && detail::isBlank(text[pos])) ++pos;
        if (pos < end && text[pos] == ',') {
            ++pos;
            while (pos < end && detail::isBlank(text[pos])) ++pos;
        } else if (pos == gap) {
            error = where + "expected a blank or a comma between x and y";
            return false;
        }
        if (!detail::readNumber(text, pos, end, y)) {
            error = where + "expected two numbers, \"x y\" or \"x,y\"";
            return false;
        }
        while (pos < end && detail::isBlank(text[pos])) ++pos;
        if (pos != end) {
            error = where + "unexpected text after the two numbers";
            return false;
        }
        if (vertices.size() >= kMaxPolygonVertices) {
            error =
                where + "too many vertices (at most " + std::to_string(kMaxPolygonVertices) + ")";
            return false;
        }
        vertices.push_back(pointf(x, y));
        start = next;
    }
    return true;
}

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_POLYGON_FILE_H
