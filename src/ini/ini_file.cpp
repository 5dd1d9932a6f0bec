// CIniFile: every operation reads the whole file once, in one read, and parses it in one pass
// (ini_parse.h). Queries keep only what their result needs; edits build the array of records,
// change it, and write it back in one write through a temporary file (platform/file.h).
#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "ini/ini_parse.h"
#include "platform/file.h"
#include "quelworks/ini/ini_file.h"

namespace quelworks::detail {

void throwUnclosedHeader(std::string_view rest) {
    // Let the string library raise its own error, with its own message.
    std::string line(rest);
    line.erase(line.find(']'));
    throw std::out_of_range("unclosed section header");  // not reached: erase(npos) throws
}

}  // namespace quelworks::detail

namespace {

using Record = CIniFile::Record;
using quelworks::detail::parseIni;

// Reads the file and runs the parser over it; false when the file cannot be opened.
template <class Emit>
bool scanFile(const std::string& fileName, Emit&& emit) {
    quelworks::platform::FileBytes text;
    if (!quelworks::platform::readWholeFile(fileName, text)) return false;
    std::string pending;
    parseIni(text.view(), pending, std::forward<Emit>(emit));
    return true;
}

Record makeRecord(std::string_view comments, char commented, std::string_view section,
                  std::string_view key, std::string_view value) {
    Record r;
    r.Comments.assign(comments);
    r.Commented = commented;
    r.Section.assign(section);
    r.Key.assign(key);
    r.Value.assign(value);
    return r;
}

void appendEntry(std::string& out, const Record& r) {
    if (r.Key.empty()) {
        out.push_back('[');
        out.append(r.Section);
        out.push_back(']');
    } else {
        out.append(r.Key);
        out.push_back('=');
        out.append(r.Value);
    }
}

bool sectionKeyMatch(const Record& r, const std::string& key, const std::string& section) {
    return r.Section == section && r.Key == key;
}

// Index of the first record whose section and key match, or -1.
std::ptrdiff_t findRecord(const std::vector<Record>& records, const std::string& key,
                          const std::string& section) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (sectionKeyMatch(records[i], key, section)) return static_cast<std::ptrdiff_t>(i);
    }
    return -1;
}

std::ptrdiff_t findSection(const std::vector<Record>& records, const std::string& section) {
    for (std::size_t i = 0; i < records.size(); ++i) {
        if (records[i].Section == section) return static_cast<std::ptrdiff_t>(i);
    }
    return -1;
}

// Comment text as stored: a line feed is added to every text of two characters or more, also to
// one that already ends with a line feed.
std::string prepareComments(std::string text) {
    if (text.size() >= 2) text.push_back('\n');
    return text;
}

}  // namespace

CIniFile::CIniFile() = default;
CIniFile::CIniFile(const CIniFile&) = default;
CIniFile& CIniFile::operator=(const CIniFile&) = default;
CIniFile::~CIniFile() = default;

void CIniFile::Trim(std::string& str, std::string ChrsToTrim) {
    std::size_t first = str.find_first_not_of(ChrsToTrim);
    if (first == std::string::npos) {
        str.clear();
        return;
    }
    str.erase(0, first);
    str.erase(str.find_last_not_of(ChrsToTrim) + 1);
}

bool CIniFile::Load(std::string FileName, std::vector<Record>& content) {
    quelworks::platform::FileBytes text;
    if (!quelworks::platform::readWholeFile(FileName, text)) return false;
    content.clear();
    // Every record is one line, so the line count bounds the array.
    const std::string_view view = text.view();
    content.reserve(static_cast<std::size_t>(std::count(view.begin(), view.end(), '\n')));
    std::string pending;
    parseIni(view, pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 content.push_back(makeRecord(comments, commented, section, key, value));
             });
    return true;
}

bool CIniFile::Save(std::string FileName, std::vector<Record>& content) {
    std::size_t size = 0;
    for (const Record& r : content) {
        size += r.Comments.size() + r.Section.size() + r.Key.size() + r.Value.size() + 4;
    }
    std::string out;
    out.reserve(size);
    for (const Record& r : content) {
        out.append(r.Comments);
        out.push_back(r.Commented);  // also the blank of a live entry
        appendEntry(out, r);
        out.push_back('\n');
    }
    if (quelworks::platform::kCrLfLineEnds) {
        // What a text stream does on write: every line feed, also those inside comments and
        // values, becomes CR LF.
        std::string crlf;
        crlf.reserve(out.size() + content.size() * 2);
        for (char c : out) {
            if (c == '\n') crlf.push_back('\r');
            crlf.push_back(c);
        }
        out.swap(crlf);
    }
    return quelworks::platform::replaceWholeFile(FileName, out) ==
           quelworks::platform::WriteResult::Written;
}

std::string CIniFile::Content(std::string FileName) {
    quelworks::platform::FileBytes text;
    if (!quelworks::platform::readWholeFile(FileName, text)) return std::string();
    // The records are written straight into the result. It is rarely longer than the file (blank
    // lines, trimming and leading blanks go), but can be: a '=x' line renders as its section's
    // header, so the room left is checked for every record.
    std::string out;
    out.resize(text.size + 64);
    std::size_t used = 0;
    auto put = [&](std::string_view s) {
        if (s.empty()) return;  // an empty view may hold no pointer at all
        std::memcpy(&out[used], s.data(), s.size());
        used += s.size();
    };
    std::string pending;
    parseIni(text.view(), pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 std::size_t need =
                     comments.size() + section.size() + key.size() + value.size() + 4;
                 if (out.size() - used < need) out.resize(std::max(out.size() * 2, used + need));
                 put(comments);
                 if (commented != ' ') out[used++] = commented;
                 if (key.empty()) {
                     out[used++] = '[';
                     put(section);
                     out[used++] = ']';
                 } else {
                     put(key);
                     out[used++] = '=';
                     put(value);
                 }
                 out[used++] = '\n';
             });
    out.resize(used);
    return out;
}

bool CIniFile::Create(std::string FileName) {
    std::vector<Record> none;
    return Save(FileName, none);
}

// ---- Queries: one pass over the file, keeping only the matches.

std::vector<std::string> CIniFile::GetSectionNames(std::string FileName) {
    std::vector<std::string> names;
    scanFile(FileName, [&](std::string_view, char, std::string_view section, std::string_view key,
                           std::string_view) {
        if (key.empty()) names.emplace_back(section);
    });
    return names;
}

std::vector<CIniFile::Record> CIniFile::GetSection(std::string SectionName, std::string FileName) {
    std::vector<Record> keys;
    scanFile(FileName, [&](std::string_view comments, char commented, std::string_view section,
                           std::string_view key, std::string_view value) {
        if (!key.empty() && section == SectionName) {
            keys.push_back(makeRecord(comments, commented, section, key, value));
        }
    });
    return keys;
}

std::vector<CIniFile::Record> CIniFile::GetSections(std::string FileName) {
    std::vector<Record> headers;
    scanFile(FileName, [&](std::string_view comments, char commented, std::string_view section,
                           std::string_view key, std::string_view value) {
        if (key.empty()) headers.push_back(makeRecord(comments, commented, section, key, value));
    });
    return headers;
}

std::vector<CIniFile::Record> CIniFile::GetRecord(std::string KeyName, std::string SectionName,
                                                  std::string FileName) {
    std::vector<Record> found;
    // The whole file is still read after the first match: a malformed line further down fails
    // the query just as it fails loading the file.
    scanFile(FileName, [&](std::string_view comments, char commented, std::string_view section,
                           std::string_view key, std::string_view value) {
        if (found.empty() && key == KeyName && section == SectionName) {
            found.push_back(makeRecord(comments, commented, section, key, value));
        }
    });
    return found;
}

std::string CIniFile::GetValue(std::string KeyName, std::string SectionName, std::string FileName) {
    std::string result;
    bool found = false;
    scanFile(FileName, [&](std::string_view, char, std::string_view section, std::string_view key,
                           std::string_view value) {
        if (!found && key == KeyName && section == SectionName) {
            result.assign(value);
            found = true;
        }
    });
    return result;
}

bool CIniFile::RecordExists(std::string KeyName, std::string SectionName, std::string FileName) {
    bool found = false;
    bool opened = scanFile(FileName, [&](std::string_view, char, std::string_view section,
                                         std::string_view key, std::string_view) {
        if (!found && key == KeyName && section == SectionName) found = true;
    });
    // A file that cannot be opened counts as holding the record.
    return found || !opened;
}

bool CIniFile::SectionExists(std::string SectionName, std::string FileName) {
    bool found = false;
    bool opened = scanFile(FileName, [&](std::string_view, char, std::string_view section,
                                         std::string_view, std::string_view) {
        if (!found && section == SectionName) found = true;
    });
    return found || !opened;
}

// ---- Edits: load once, change the array, save. Existence checks use the loaded records.

bool CIniFile::SetValue(std::string KeyName, std::string Value, std::string SectionName,
                        std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    std::ptrdiff_t sectionAt = findSection(content, SectionName);
    if (sectionAt < 0) {
        Record header;
        header.Section = SectionName;
        content.push_back(std::move(header));
        Record entry;
        entry.Section = std::move(SectionName);
        entry.Key = std::move(KeyName);
        entry.Value = std::move(Value);
        content.push_back(std::move(entry));
        return Save(FileName, content);
    }
    std::ptrdiff_t recordAt = findRecord(content, KeyName, SectionName);
    if (recordAt < 0) {
        // A new key goes directly after the first record of its section.
        Record entry;
        entry.Section = std::move(SectionName);
        entry.Key = std::move(KeyName);
        entry.Value = std::move(Value);
        content.insert(content.begin() + sectionAt + 1, std::move(entry));
        return Save(FileName, content);
    }
    content[static_cast<std::size_t>(recordAt)].Value = std::move(Value);
    return Save(FileName, content);
}

bool CIniFile::AddSection(std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    Record header;
    header.Section = std::move(SectionName);
    content.push_back(std::move(header));
    return Save(FileName, content);
}

bool CIniFile::RenameSection(std::string OldSectionName, std::string NewSectionName,
                             std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    for (Record& r : content) {
        if (r.Section == OldSectionName) r.Section = NewSectionName;
    }
    return Save(FileName, content);
}

bool CIniFile::CommentRecord(CommentChar cc, std::string KeyName, std::string SectionName,
                             std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    std::ptrdiff_t at = findRecord(content, KeyName, SectionName);
    if (at < 0) return false;
    content[static_cast<std::size_t>(at)].Commented = static_cast<char>(cc);
    return Save(FileName, content);
}

bool CIniFile::UnCommentRecord(std::string KeyName, std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    std::ptrdiff_t at = findRecord(content, KeyName, SectionName);
    if (at < 0) return false;
    content[static_cast<std::size_t>(at)].Commented = ' ';
    return Save(FileName, content);
}

bool CIniFile::CommentSection(char cc, std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    for (Record& r : content) {
        if (r.Section == SectionName) r.Commented = cc;
    }
    return Save(FileName, content);
}

bool CIniFile::UnCommentSection(std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    for (Record& r : content) {
        if (r.Section == SectionName) r.Commented = ' ';
    }
    return Save(FileName, content);
}

bool CIniFile::DeleteRecord(std::string KeyName, std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    std::ptrdiff_t at = findRecord(content, KeyName, SectionName);
    if (at < 0) return false;
    content.erase(content.begin() + at);
    return Save(FileName, content);
}

bool CIniFile::DeleteSection(std::string SectionName, std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    content.erase(std::remove_if(content.begin(), content.end(),
                                 [&](const Record& r) { return r.Section == SectionName; }),
                  content.end());
    return Save(FileName, content);
}

bool CIniFile::SetSectionComments(std::string Comments, std::string SectionName,
                                  std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    for (Record& r : content) {
        if (r.Section == SectionName && r.Key.empty()) {
            r.Comments = prepareComments(std::move(Comments));
            return Save(FileName, content);
        }
    }
    return false;
}

bool CIniFile::SetRecordComments(std::string Comments, std::string KeyName, std::string SectionName,
                                 std::string FileName) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;
    std::ptrdiff_t at = findRecord(content, KeyName, SectionName);
    if (at < 0) return false;
    content[static_cast<std::size_t>(at)].Comments = prepareComments(std::move(Comments));
    return Save(FileName, content);
}

bool CIniFile::Sort(std::string FileName, bool Descending) {
    std::vector<Record> content;
    if (!Load(FileName, content)) return false;

    // The headers, and for every section name the indices of its keys in file order: what the
    // header list and the per-section key lists of the file are, gathered in one walk.
    std::vector<std::size_t> headers;
    std::unordered_map<std::string_view, std::vector<std::size_t>> keysOf;
    for (std::size_t i = 0; i < content.size(); ++i) {
        if (content[i].Key.empty()) {
            headers.push_back(i);
        } else {
            keysOf[content[i].Section].push_back(i);
        }
    }
    if (headers.empty()) return false;

    // std::string compares bytewise as unsigned characters, a shorter name first on a tie.
    auto bySection = [&](std::size_t a, std::size_t b) {
        return Descending ? content[b].Section < content[a].Section
                          : content[a].Section < content[b].Section;
    };
    auto byKey = [&](std::size_t a, std::size_t b) {
        return Descending ? content[b].Key < content[a].Key : content[a].Key < content[b].Key;
    };
    std::stable_sort(headers.begin(), headers.end(), bySection);
    for (auto& entry : keysOf) std::stable_sort(entry.second.begin(), entry.second.end(), byKey);

    std::vector<Record> sorted;
    sorted.reserve(content.size());
    for (std::size_t h : headers) {
        sorted.push_back(content[h]);
        auto keys = keysOf.find(content[h].Section);
        if (keys == keysOf.end()) continue;
        for (std::size_t k : keys->second) sorted.push_back(content[k]);
    }
    return Save(FileName, sorted);
}
