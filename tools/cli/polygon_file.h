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

// Parses the line text[start, end) (without its line end) as a point "x y" or "x,y". Returns 1
// with the point in p, 0 for a blank line or a comment, -1 with a message in `error` (without the
// line number) when the line is malformed.
inline int parsePointLine(const std::string& text, std::size_t start, std::size_t end, pointf& p,
                          std::string& error) {
    std::size_t pos = start;
    while (pos < end && detail::isBlank(text[pos])) ++pos;
    if (pos == end || text[pos] == '#') return 0;
    // Only this line is searched, so reading stays linear in the size of the text.
    if (std::memchr(text.data() + start, '\0', end - start) != nullptr) {
        error = "unexpected NUL byte";
        return -1;
    }
    float x = 0.0f;
    float y = 0.0f;
    if (!detail::readNumber(text, pos, end, x)) {
        error = "expected two numbers, \"x y\" or \"x,y\"";
        return -1;
    }
    std::size_t gap = pos;
    while (pos < end && detail::isBlank(text[pos])) ++pos;
    if (pos < end && text[pos] == ',') {
        ++pos;
        while (pos < end && detail::isBlank(text[pos])) ++pos;
    } else if (pos == gap) {
        error = "expected a blank or a comma between x and y";
        return -1;
    }
    if (!detail::readNumber(text, pos, end, y)) {
        error = "expected two numbers, \"x y\" or \"x,y\"";
        return -1;
    }
    while (pos < end && detail::isBlank(text[pos])) ++pos;
    if (pos != end) {
        error = "unexpected text after the two numbers";
        return -1;
    }
    p = pointf(x, y);
    return 1;
}

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
        pointf p;
        const int got = parsePointLine(text, start, end, p, error);
        if (got < 0) {
            error = "line " + std::to_string(lineNumber) + ": " + error;
            return false;
        }
        if (got > 0) {
            if (vertices.size() >= kMaxPolygonVertices) {
                error = "line " + std::to_string(lineNumber) + ": too many vertices (at most " +
                        std::to_string(kMaxPolygonVertices) + ")";
                return false;
            }
            vertices.push_back(p);
        }
        start = end + 1;
    }
    return true;
}

}  // namespace quelworks::cli

#endif  // QUELWORKS_TOOLS_CLI_POLYGON_FILE_H
