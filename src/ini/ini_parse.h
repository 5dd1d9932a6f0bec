// The INI reader behind every CIniFile operation: one pass over the file's text, reporting each
// record as views into the text, without building strings. Callers decide what to keep: the loader
// copies every record, a query keeps only its matches, Content renders straight into its result.
#ifndef QUELWORKS_SRC_INI_INI_PARSE_H
#define QUELWORKS_SRC_INI_INI_PARSE_H

#include <cstring>
#include <string>
#include <string_view>

// QUELWORKS_FORCE_SCALAR (the CMake option of that name) turns the vector scan off, so that the
// plain loop is compiled and tested too.
#if defined(__SSE2__) && defined(__GNUC__) && !defined(QUELWORKS_FORCE_SCALAR)
#define QUELWORKS_INI_SSE2 1
#include <emmintrin.h>
#endif

namespace quelworks::detail {

inline bool isIniBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

// Drops blanks, tabs, line feeds and carriage returns from both ends.
inline std::string_view trimIniBlanks(std::string_view s) {
    std::size_t first = 0;
    while (first < s.size() && isIniBlank(s[first])) ++first;
    std::size_t last = s.size();
    while (last > first && isIniBlank(s[last - 1])) --last;
    return s.substr(first, last - first);
}

// Where a line ends and where its first '[' and first '=' stand (null when absent).
struct IniLineScan {
    const char* end;  // the line feed, or null when the text ends first
    const char* bracket;
    const char* equals;
};

// Finds the end of the line starting at p, noting its first '[' and '=' on the way: one pass over
// the bytes, 16 at a time where SSE2 is there.
inline IniLineScan scanIniLine(const char* p, const char* limit) {
    const char* bracket = nullptr;
    const char* equals = nullptr;
#if defined(QUELWORKS_INI_SSE2)
    const __m128i lineFeeds = _mm_set1_epi8('\n');
    const __m128i brackets = _mm_set1_epi8('[');
    const __m128i equalSigns = _mm_set1_epi8('=');
    while (limit - p >= 16) {
        __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        unsigned lf = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, lineFeeds)));
        unsigned br = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, brackets)));
        unsigned eq = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, equalSigns)));
        if (lf != 0) {
            unsigned before = (lf & (0u - lf)) - 1;  // the bits below the first line feed
            br &= before;
            eq &= before;
        }
        if (bracket == nullptr && br != 0) bracket = p + __builtin_ctz(br);
        if (equals == nullptr && eq != 0) equals = p + __builtin_ctz(eq);
        if (lf != 0) return {p + __builtin_ctz(lf), bracket, equals};
        p += 16;
    }
#endif
    for (; p != limit; ++p) {
        char c = *p;
        if (c == '\n') return {p, bracket, equals};
        if (c == '[' && bracket == nullptr) bracket = p;
        if (c == '=' && equals == nullptr) equals = p;
    }
    return {nullptr, bracket, equals};
}

// Raises the string library's own out-of-range error for a header line that has no ']' after its
// first character, exactly as cutting the line at a ']' that is not there does.
[[noreturn]] void throwUnclosedHeader(std::string_view rest);

// Reads `text` line by line and calls
//     emit(comments, commented, section, key, value)
// for every record, in file order. All five views are valid only during the call. `pending` is
// scratch space for comment lines waiting for their entry (cleared first).
//
// Rules: a line is trimmed and blank lines are skipped. A line starting with '#' or ';' is a
// comment line when it holds neither '[' nor '=', otherwise a commented-out entry whose comment
// character is removed. A line holding '[' anywhere loses its first character, whatever it is,
// and is cut at the first ']' (none there: out_of_range); it names a header and becomes the
// current section. A line (as cut) holding '=' is a key entry of the current section, split at the
// first '='. A line that is neither becomes an empty record unless comment lines are waiting, in
// which case it is dropped. A last line without a line feed is never read.
template <class Emit>
void parseIni(std::string_view text, std::string& pending, Emit&& emit) {
    pending.clear();
    std::string_view current;  // the current section's name
    const char* p = text.data();
    const char* const end = p + text.size();
    while (p != end) {
        const IniLineScan scan = scanIniLine(p, end);
        if (scan.end == nullptr) break;
        std::string_view line = trimIniBlanks(std::string_view(p, scan.end - p));
        p = scan.end + 1;
        if (line.empty()) continue;

        char commented = ' ';
        if (line[0] == '#' || line[0] == ';') {
            if (scan.bracket == nullptr && scan.equals == nullptr) {
                pending.append(line);
                pending.push_back('\n');
                continue;
            }
            commented = line[0];
            line = trimIniBlanks(line.substr(1));
        }

        std::string_view comments;
        std::string_view section;
        std::string_view key;
        std::string_view value;
        bool entry = false;
        // Trimming and the comment character never remove a '[' or '=', so the positions found
        // on the raw line still hold, except after a header line lost its first character.
        const char* equals = scan.equals;
        if (scan.bracket != nullptr) {
            line.remove_prefix(1);
            std::size_t close = line.find(']');
            if (close == std::string_view::npos) throwUnclosedHeader(line);
            line = line.substr(0, close);
            std::size_t eq = line.find('=');
            equals = eq == std::string_view::npos ? nullptr : line.data() + eq;
            comments = pending;
            section = line;
            current = line;
            entry = true;
        }
        if (equals != nullptr) {
            // A header line that also holds '=' already took the waiting comments.
            comments = scan.bracket != nullptr ? std::string_view() : std::string_view(pending);
            section = current;
            std::size_t eq = static_cast<std::size_t>(equals - line.data());
            key = line.substr(0, eq);
            value = line.substr(eq + 1);
            entry = true;
        }
        if (!entry && !pending.empty()) continue;
        emit(comments, commented, section, key, value);
        if (entry) pending.clear();
    }
}

}  // namespace quelworks::detail

#endif  // QUELWORKS_SRC_INI_INI_PARSE_H
