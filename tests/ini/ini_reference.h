// A deliberately plain INI implementation, written step by step the slow way (line-by-line
// stream reading, a stream write flushed after every line, every existence check loading the file
// again), used to check the library's one-pass version on many inputs: every result and every
// written byte must be the same.
#ifndef QUELWORKS_TESTS_INI_INI_REFERENCE_H
#define QUELWORKS_TESTS_INI_INI_REFERENCE_H

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "quelworks/ini/ini_file.h"

namespace ini_reference {

using Record = CIniFile::Record;

inline void trim(std::string& str, const std::string& chars) {
    std::size_t first = str.find_first_not_of(chars);
    if (first == std::string::npos) {
        str.clear();
        return;
    }
    str.erase(0, first);
    str.erase(str.find_last_not_of(chars) + 1);
}

inline bool load(const std::string& fileName, std::vector<Record>& content) {
    // A folder opens as a stream on some systems; it is no file to read.
    std::error_code ec;
    if (std::filesystem::is_directory(fileName, ec)) return false;
    std::ifstream in(fileName);
    if (!in.is_open()) return false;
    content.clear();
    std::string comments;
    std::string currentSection;
    std::string line;
    while (std::getline(in, line) && !in.eof()) {
        trim(line, " \t\n\r");
        if (line.empty()) continue;
        Record r;
        r.Comments = "";
        r.Section = "";
        r.Key = "";
        r.Value = "";
        if (line[0] == '#' || line[0] == ';') {
            if (line.find('[') == std::string::npos && line.find('=') == std::string::npos) {
                comments += line + "\n";
            } else {
                r.Commented = line[0];
                line.erase(0, 1);
                trim(line, " \t\n\r");
            }
        } else {
            r.Commented = ' ';
        }
        if (line.find('[') != std::string::npos) {
            line.erase(0, 1);
            line.erase(line.find(']'));
            r.Comments = comments;
            comments = "";
            r.Section = line;
            r.Key = "";
            r.Value = "";
            currentSection = line;
        }
        if (line.find('=') != std::string::npos) {
            r.Comments = comments;
            comments = "";
            r.Section = currentSection;
            r.Key = line.substr(0, line.find('='));
            r.Value = line.substr(line.find('=') + 1);
        }
        if (comments.empty()) content.push_back(r);
    }
    return true;
}

inline bool save(const std::string& fileName, const std::vector<Record>& content) {
    std::ofstream out(fileName);
    if (!out.is_open()) return false;
    for (const Record& r : content) {
        out << r.Comments << r.Commented;
        if (r.Key.empty()) {
            out << "[" << r.Section << "]";
        } else {
            out << r.Key << "=" << r.Value;
        }
        out << std::endl;
    }
    return true;
}

inline std::string content(const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return "";
    std::string s;
    for (const Record& r : records) {
        if (!r.Comments.empty()) s += r.Comments;
        if (r.Commented != ' ') s += r.Commented;
        if (r.Key.empty()) {
            s += "[" + r.Section + "]";
        } else {
            s += r.Key + "=" + r.Value;
        }
        s += "\n";
    }
    return s;
}

inline std::vector<Record> getSections(const std::string& fileName) {
    std::vector<Record> records, result;
    if (!load(fileName, records)) return result;
    for (const Record& r : records) {
        if (r.Key.empty()) result.push_back(r);
    }
    return result;
}

inline std::vector<std::string> getSectionNames(const std::string& fileName) {
    std::vector<std::string> names;
    for (const Record& r : getSections(fileName)) names.push_back(r.Section);
    return names;
}

inline std::vector<Record> getSection(const std::string& section, const std::string& fileName) {
    std::vector<Record> records, result;
    if (!load(fileName, records)) return result;
    for (const Record& r : records) {
        if (r.Section == section && !r.Key.empty()) result.push_back(r);
    }
    return result;
}

inline std::vector<Record> getRecord(const std::string& key, const std::string& section,
                                     const std::string& fileName) {
    std::vector<Record> records, result;
    if (!load(fileName, records)) return result;
    for (const Record& r : records) {
        if (r.Section == section && r.Key == key) {
            result.push_back(r);
            break;
        }
    }
    return result;
}

inline std::string getValue(const std::string& key, const std::string& section,
                            const std::string& fileName) {
    std::vector<Record> found = getRecord(key, section, fileName);
    return found.empty() ? "" : found[0].Value;
}

inline bool recordExists(const std::string& key, const std::string& section,
                         const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return true;
    for (const Record& r : records) {
        if (r.Section == section && r.Key == key) return true;
    }
    return false;
}

inline bool sectionExists(const std::string& section, const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return true;
    for (const Record& r : records) {
        if (r.Section == section) return true;
    }
    return false;
}

inline bool setValue(const std::string& key, const std::string& value, const std::string& section,
                     const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    Record entry;
    entry.Comments = "";
    entry.Commented = ' ';
    entry.Section = section;
    entry.Key = key;
    entry.Value = value;
    if (!sectionExists(section, fileName)) {
        Record header = entry;
        header.Key = "";
        header.Value = "";
        records.push_back(header);
        records.push_back(entry);
        return save(fileName, records);
    }
    if (!recordExists(key, section, fileName)) {
        auto at = std::find_if(records.begin(), records.end(),
                               [&](const Record& r) { return r.Section == section; });
        records.insert(at + 1, entry);
        return save(fileName, records);
    }
    auto at = std::find_if(records.begin(), records.end(),
                           [&](const Record& r) { return r.Section == section && r.Key == key; });
    at->Value = value;
    return save(fileName, records);
}

inline bool addSection(const std::string& section, const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    Record header;
    header.Comments = "";
    header.Commented = ' ';
    header.Section = section;
    records.push_back(header);
    return save(fileName, records);
}

inline bool renameSection(const std::string& from, const std::string& to,
                          const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (Record& r : records) {
        if (r.Section == from) r.Section = to;
    }
    return save(fileName, records);
}

inline bool setRecordCommented(char c, const std::string& key, const std::string& section,
                               const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (Record& r : records) {
        if (r.Section == section && r.Key == key) {
            r.Commented = c;
            return save(fileName, records);
        }
    }
    return false;
}

inline bool setSectionCommented(char c, const std::string& section, const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (Record& r : records) {
        if (r.Section == section) r.Commented = c;
    }
    return save(fileName, records);
}

inline bool deleteRecord(const std::string& key, const std::string& section,
                         const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (auto it = records.begin(); it != records.end(); ++it) {
        if (it->Section == section && it->Key == key) {
            records.erase(it);
            return save(fileName, records);
        }
    }
    return false;
}

inline bool deleteSection(const std::string& section, const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (std::size_t i = records.size(); i-- > 0;) {
        if (records[i].Section == section) records.erase(records.begin() + i);
    }
    return save(fileName, records);
}

inline std::string prepareComments(std::string text) {
    if (text.size() >= 2 && text.substr(text.size() - 2) != "\n") text += "\n";
    return text;
}

inline bool setSectionComments(const std::string& text, const std::string& section,
                               const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (Record& r : records) {
        if (r.Section == section && r.Key.empty()) {
            r.Comments = prepareComments(text);
            return save(fileName, records);
        }
    }
    return false;
}

inline bool setRecordComments(const std::string& text, const std::string& key,
                              const std::string& section, const std::string& fileName) {
    std::vector<Record> records;
    if (!load(fileName, records)) return false;
    for (Record& r : records) {
        if (r.Section == section && r.Key == key) {
            r.Comments = prepareComments(text);
            return save(fileName, records);
        }
    }
    return false;
}

// Orders equal names as std::stable_sort does, which is one of the orders an unstable sort may
// give; the library makes the same choice, so results compare equal.
inline bool sort(const std::string& fileName, bool descending) {
    std::vector<Record> headers = getSections(fileName);
    if (headers.empty()) return false;
    auto less = [](const std::string& a, const std::string& b) {
        std::size_t n = std::min(a.size(), b.size());
        for (std::size_t i = 0; i < n; ++i) {
            auto ca = static_cast<unsigned char>(a[i]);
            auto cb = static_cast<unsigned char>(b[i]);
            if (ca != cb) return ca < cb;
        }
        return a.size() < b.size();
    };
    std::stable_sort(headers.begin(), headers.end(), [&](const Record& a, const Record& b) {
        return descending ? less(b.Section, a.Section) : less(a.Section, b.Section);
    });
    std::vector<Record> result;
    for (const Record& h : headers) {
        result.push_back(h);
        std::vector<Record> keys = getSection(h.Section, fileName);
        std::stable_sort(keys.begin(), keys.end(), [&](const Record& a, const Record& b) {
            return descending ? less(b.Key, a.Key) : less(a.Key, b.Key);
        });
        result.insert(result.end(), keys.begin(), keys.end());
    }
    return save(fileName, result);
}

}  // namespace ini_reference

#endif  // QUELWORKS_TESTS_INI_INI_REFERENCE_H
