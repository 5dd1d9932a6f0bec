// The INI reader behind every CIniFile operation: one pass over the file's text, reporting each
// record as views into the text, without building strings. Callers decide what to keep: the loader
// copies every record, a query keeps only its matches, Content renders straight into its result.
#ifndef QUELWORKS_SRC_INI_INI_PARSE_H
#define QUELWORKS_SRC_INI_INI_PARSE_H

#include <cstring>
#include <string>
#include <string_view>

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
        const char* nl = static_cast<const char*>(std::memchr(p, '\n', end - p));
        if (nl == nullptr) break;
        std::string_view line = trimIniBlanks(std::string_view(p, nl - p));
        p = nl + 1;
        if (line.empty()) continue;

        const char* bracket = static_cast<const char*>(std::memchr(line.data(), '[', line.size()));
        char commented = ' ';
        if (line[0] == '#' || line[0] == ';') {
            if (bracket == nullptr && std::memchr(line.data(), '=', line.size()) == nullptr) {
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
        if (bracket != nullptr) {
            line.remove_prefix(1);
            std::size_t close = line.find(']');
            if (close == std::string_view::npos) throwUnclosedHeader(line);
            line = line.substr(0, close);
            comments = pending;
            section = line;
            current = line;
            entry = true;
        }
        std::size_t eq = line.find('=');
        if (eq != std::string_view::npos) {
            // A header line that also holds '=' already took the waiting comments.
            comments = bracket != nullptr ? std::string_view() : std::string_view(pending);
            section = current;
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
