// A deliberately plain INI implementation, written the slow, obvious way (line-by-line stream
// reading, a stream write flushed after every line, every lookup loading the file again), used to
// check the library's one-pass version: every result and every written byte must be the same.
#ifndef QUELWORKS_TESTS_INI_INI_REFERENCE_H
#define QUELWORKS_TESTS_INI_INI_REFERENCE_H

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "quelworks/ini/ini_file.h"

namespace ini_reference {

using Record = CIniFile::Record;
using Records = std::vector<Record>;

inline void trim(std::string& s) {
    s.erase(0, s.find_first_not_of(" \t\n\r"));
    s.erase(s.find_last_not_of(" \t\n\r") + 1);
}

inline bool load(const std::string& fileName, Records& content) {
    // A folder opens as a stream on some systems; it is no file to read.
    std::error_code ec;
    if (std::filesystem::is_directory(fileName, ec)) return false;
    std::ifstream in(fileName);
    if (!in.is_open()) return false;
    content.clear();
    std::string comments, section, line;
    while (std::getline(in, line) && !in.eof()) {
        trim(line);
        if (line.empty()) continue;
        Record r;
        if (line[0] == '#' || line[0] == ';') {
            if (line.find_first_of("[=") == std::string::npos) {
                comments += line + "\n";
            } else {
                r.Commented = line[0];
                line.erase(0, 1);
                trim(line);
            }
        }
        if (line.find('[') != std::string::npos) {
            line.erase(0, 1);
            line.erase(line.find(']'));  // std::out_of_range when there is none
            r.Comments = std::exchange(comments, std::string());
            r.Section = section = line;
        }
        if (line.find('=') != std::string::npos) {
            r.Comments = std::exchange(comments, std::string());
            r.Section = section;
            r.Key = line.substr(0, line.find('='));
            r.Value = line.substr(line.find('=') + 1);
        }
        if (comments.empty()) content.push_back(r);
    }
    return true;
}

inline bool save(const std::string& fileName, const Records& content) {
    std::ofstream out(fileName);
    if (!out.is_open()) return false;
    for (const Record& r : content) {
        out << r.Comments << r.Commented
            << (r.Key.empty() ? "[" + r.Section + "]" : r.Key + "=" + r.Value) << std::endl;
    }
    return true;
}

inline std::string content(const std::string& fileName) {
    Records records;
    load(fileName, records);
    std::string s;
    for (const Record& r : records) {
        s += r.Comments;
        if (r.Commented != ' ') s += r.Commented;
        s += r.Key.empty() ? "[" + r.Section + "]\n" : r.Key + "=" + r.Value + "\n";
    }
    return s;
}

// The file's records that pass `keep`; none when the file cannot be read.
template <class Keep>
Records select(const std::string& fileName, Keep keep) {
    Records records, result;
    load(fileName, records);
    for (const Record& r : records) {
        if (keep(r)) result.push_back(r);
    }
    return result;
}

inline std::vector<std::string> getSectionNames(const std::string& fileName) {
    std::vector<std::string> names;
    for (const Record& r : select(fileName, [](const Record& r) { return r.Key.empty(); })) {
        names.push_back(r.Section);
    }
    return names;
}

inline Records getSection(const std::string& section, const std::string& fileName) {
    return select(fileName,
                  [&](const Record& r) { return r.Section == section && !r.Key.empty(); });
}

inline Records getRecord(const std::string& key, const std::string& section,
                         const std::string& fileName) {
    Records found =
        select(fileName, [&](const Record& r) { return r.Section == section && r.Key == key; });
    if (found.size() > 1) found.resize(1);
    return found;
}

inline std::string getValue(const std::string& key, const std::string& section,
                            const std::string& fileName) {
    Records found = getRecord(key, section, fileName);
    return found.empty() ? "" : found[0].Value;
}

// Both say yes for a file that cannot be read.
inline bool recordExists(const std::string& key, const std::string& section,
                         const std::string& fileName) {
    Records records;
    return !load(fileName, records) || !getRecord(key, section, fileName).empty();
}

inline bool sectionExists(const std::string& section, const std::string& fileName) {
    Records records;
    return !load(fileName, records) ||
           std::any_of(records.begin(), records.end(),
                       [&](const Record& r) { return r.Section == section; });
}

inline bool setValue(const std::string& key, const std::string& value, const std::string& section,
                     const std::string& fileName) {
    Records records;
    if (!load(fileName, records)) return false;
    const Record entry{"", ' ', section, key, value};
    auto inSection = [&](const Record& r) { return r.Section == section; };
    if (!sectionExists(section, fileName)) {
        records.push_back({"", ' ', section, "", ""});
        records.push_back(entry);
    } else if (!recordExists(key, section, fileName)) {
        records.insert(std::find_if(records.begin(), records.end(), inSection) + 1, entry);
    } else {
        std::find_if(records.begin(), records.end(), [&](const Record& r) {
            return inSection(r) && r.Key == key;
        })->Value = value;
    }
    return save(fileName, records);
}

inline bool addSection(const std::string& section, const std::string& fileName) {
    Records records;
    if (!load(fileName, records)) return false;
    records.push_back({"", ' ', section, "", ""});
    return save(fileName, records);
}

// Edits the first record that passes `match` (false when there is none), or every one that does:
// `change` changes it, or, when null, drops it.
template <class Match>
bool edit(const std::string& fileName, bool every, Match match,
          const std::function<void(Record&)>& change) {
    Records records, result;
    if (!load(fileName, records)) return false;
    bool found = false;
    for (Record& r : records) {
        if ((every || !found) && match(r)) {
            found = true;
            if (!change) continue;
            change(r);
        }
        result.push_back(r);
    }
    return (every || found) && save(fileName, result);
}

// Headers by name, then under each header every key of that section by name, comparing bytes as
// unsigned values. Equal names keep their file order, as std::stable_sort leaves them.
inline bool sort(const std::string& fileName, bool descending) {
    Records headers = select(fileName, [](const Record& r) { return r.Key.empty(); });
    if (headers.empty()) return false;
    auto less = [descending](const std::string& a, const std::string& b) {
        auto byte = [](unsigned char x, unsigned char y) { return x < y; };
        return descending
                   ? std::lexicographical_compare(b.begin(), b.end(), a.begin(), a.end(), byte)
                   : std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), byte);
    };
    std::stable_sort(headers.begin(), headers.end(),
                     [&](const Record& a, const Record& b) { return less(a.Section, b.Section); });
    Records result;
    for (const Record& h : headers) {
        result.push_back(h);
        Records keys = getSection(h.Section, fileName);
        std::stable_sort(keys.begin(), keys.end(),
                         [&](const Record& a, const Record& b) { return less(a.Key, b.Key); });
        result.insert(result.end(), keys.begin(), keys.end());
    }
    return save(fileName, result);
}

}  // namespace ini_reference

#endif  // QUELWORKS_TESTS_INI_INI_REFERENCE_H
