// CIniFile: every operation reads the whole file once, in one read, and parses it in one pass
// (ini_parse.h) that reports records as views into the file's bytes. Queries keep only what their
// result needs. Edits write each record, changed or not, straight into the new file's bytes as it
// is read, without building the array of records, and write the result in one write through a
// temporary file (platform/file.h). Only Sort, which reorders everything, builds the array.
#include <algorithm>
#include <chrono>
#include <cstring>
#include <new>
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
using quelworks::platform::FileBytes;
using quelworks::platform::readWholeFile;

// One record as the reader reports it: views into the file's bytes.
struct RecordView {
    std::string_view comments;
    char commented;
    std::string_view section;
    std::string_view key;
    std::string_view value;
};

RecordView viewOf(const Record& r) {
    return {r.Comments, r.Commented, r.Section, r.Key, r.Value};
}

Record recordOf(const RecordView& v) {
    Record r;
    r.Comments.assign(v.comments);
    r.Commented = v.commented;
    r.Section.assign(v.section);
    r.Key.assign(v.key);
    r.Value.assign(v.value);
    return r;
}

// Reads the file and passes every record to `emit(const RecordView&)`; false when the file
// cannot be opened.
template <class Emit>
bool scanFile(const std::string& fileName, Emit&& emit) {
    FileBytes text;
    if (!readWholeFile(fileName, text)) return false;
    std::string pending;
    parseIni(text.view(), pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 emit(RecordView{comments, commented, section, key, value});
             });
    return true;
}

// Renders records as lines: comments, then the comment character (for a live entry a blank when
// `liveBlank`, as files are written, or nothing, as Content shows them), then "[section]" for a
// header or "key=value", then a line feed. Writes into a buffer sized once for the usual case.
class RecordWriter {
public:
    RecordWriter(std::size_t sizeHint, bool liveBlank) : liveBlank_(liveBlank) {
        buf_.resize(sizeHint + 64);
    }

    void write(const RecordView& r) {
        const std::size_t need =
            r.comments.size() + r.section.size() + r.key.size() + r.value.size() + 4;
        if (buf_.size() - used_ < need) buf_.resize(std::max(buf_.size() * 2, used_ + need));
        put(r.comments);
        if (liveBlank_ || r.commented != ' ') buf_[used_++] = r.commented;
        if (r.key.empty()) {
            buf_[used_++] = '[';
            put(r.section);
            buf_[used_++] = ']';
        } else {
            put(r.key);
            buf_[used_++] = '=';
            put(r.value);
        }
        buf_[used_++] = '\n';
    }

    std::size_t size() const { return used_; }

    std::string take() {
        buf_.resize(used_);
        used_ = 0;
        return std::move(buf_);
    }

private:
    void put(std::string_view s) {
        if (s.empty()) return;  // an empty view may hold no pointer at all
        std::memcpy(&buf_[used_], s.data(), s.size());
        used_ += s.size();
    }

    std::string buf_;
    std::size_t used_ = 0;
    bool liveBlank_;
};

// Writes a file's new text, with the platform's line ends, replacing the old one safely.
bool writeText(const std::string& fileName, std::string text) {
    if (quelworks::platform::kCrLfLineEnds) {
        // What a text stream does on write: every line feed, also those inside comments and
        // values, becomes CR LF.
        std::string crlf;
        crlf.reserve(text.size() + text.size() / 16);
        for (char c : text) {
            if (c == '\n') crlf.push_back('\r');
            crlf.push_back(c);
        }
        text.swap(crlf);
    }
    return quelworks::platform::replaceWholeFile(fileName, text) ==
           quelworks::platform::WriteResult::Written;
}

// How long an edit waits for another editor of the same file to finish before it gives up.
constexpr std::chrono::milliseconds kEditLockWait(5000);

// Runs one edit (a read of the file, then a write of its new content) under the file's edit lock,
// so that edits of the same file by other threads and processes come before or after it, never
// in between. False, with nothing changed, when another editor holds the lock longer than
// kEditLockWait, or when memory runs out; without a lock (a file system that has none, a file that
// does not exist yet) the edit runs as it is. A malformed file's out_of_range still propagates.
template <class Body>
bool lockedEdit(const std::string& fileName, Body&& body) {
    quelworks::platform::EditLock lock;
    if (lock.acquire(fileName, kEditLockWait) == quelworks::platform::EditLock::Result::TimedOut) {
        return false;
    }
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Reads the file and hands every record to `edit(writer, record)`, which writes what the record
// becomes (itself, a changed copy, or nothing). Returns false when the file cannot be read; then
// `writer` holds nothing.
template <class Edit>
bool rewrite(const std::string& fileName, RecordWriter& writer, Edit&& edit) {
    FileBytes text;
    if (!readWholeFile(fileName, text)) return false;
    writer = RecordWriter(text.size + text.size / 8, true);
    std::string pending;
    parseIni(text.view(), pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 edit(writer, RecordView{comments, commented, section, key, value});
             });
    return true;
}

bool keyMatch(const RecordView& r, const std::string& key, const std::string& section) {
    return r.key == key && r.section == section;
}

// Comment text as stored: a line feed is added to every text of two characters or more, also to
// one that already ends with a line feed.
std::string prepareComments(std::string text) {
    if (text.size() >= 2) text.push_back('\n');
    return text;
}

// Edits the first record that passes `match`; false, with nothing written, when there is none.
template <class Match, class Change>
bool editFirst(const std::string& fileName, Match&& match, Change&& change) {
    return lockedEdit(fileName, [&] {
        RecordWriter out(0, true);
        bool found = false;
        if (!rewrite(fileName, out, [&](RecordWriter& w, RecordView r) {
                if (!found && match(r)) {
                    found = true;
                    change(w, r);
                } else {
                    w.write(r);
                }
            })) {
            return false;
        }
        return found && writeText(fileName, out.take());
    });
}

// Edits every record that passes `match`, and saves also when none did.
template <class Match, class Change>
bool editAll(const std::string& fileName, Match&& match, Change&& change) {
    return lockedEdit(fileName, [&] {
        RecordWriter out(0, true);
        if (!rewrite(fileName, out, [&](RecordWriter& w, RecordView r) {
                if (match(r)) {
                    change(w, r);
                } else {
                    w.write(r);
                }
            })) {
            return false;
        }
        return writeText(fileName, out.take());
    });
}

// Writes records as a whole new file (the caller holds the edit lock).
bool saveRecords(const std::string& fileName, const std::vector<Record>& content) {
    std::size_t size = 0;
    for (const Record& r : content) {
        size += r.Comments.size() + r.Section.size() + r.Key.size() + r.Value.size() + 4;
    }
    RecordWriter out(size, true);
    for (const Record& r : content) out.write(viewOf(r));
    return writeText(fileName, out.take());
}

}  // namespace

CIniFile::CIniFile() = default;
CIniFile::CIniFile(const CIniFile&) = default;
CIniFile& CIniFile::operator=(const CIniFile&) = default;
CIniFile::~CIniFile() = default;

// The string form of the trimming that the reader does on views of the file (trimIniBlanks, with
// " \t\n\r").
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
    FileBytes text;
    if (!readWholeFile(FileName, text)) return false;
    const std::string_view view = text.view();
    // No room is reserved up front: most lines of some files (blank lines, comments) make no
    // record, and a guess per line feed could ask for far more memory than the records need.
    std::vector<Record> records;
    std::string pending;
    parseIni(view, pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 records.push_back(recordOf(RecordView{comments, commented, section, key, value}));
             });
    content.swap(records);
    return true;
}

bool CIniFile::Save(std::string FileName, std::vector<Record>& content) {
    return lockedEdit(FileName, [&] { return saveRecords(FileName, content); });
}

std::string CIniFile::Content(std::string FileName) {
    FileBytes text;
    if (!readWholeFile(FileName, text)) return std::string();
    // The result is rarely longer than the file: blank lines, trimming and leading blanks go.
    RecordWriter out(text.size, false);
    std::string pending;
    parseIni(text.view(), pending,
             [&](std::string_view comments, char commented, std::string_view section,
                 std::string_view key, std::string_view value) {
                 out.write(RecordView{comments, commented, section, key, value});
             });
    return out.take();
}

bool CIniFile::Create(std::string FileName) {
    std::vector<Record> none;
    return Save(FileName, none);
}

// ---- Queries: one pass over the file, keeping only the matches. A query goes on reading after
// its first match: a malformed line further down fails it just as it fails loading the file.

std::vector<std::string> CIniFile::GetSectionNames(std::string FileName) {
    std::vector<std::string> names;
    scanFile(FileName, [&](const RecordView& r) {
        if (r.key.empty()) names.emplace_back(r.section);
    });
    return names;
}

std::vector<CIniFile::Record> CIniFile::GetSection(std::string SectionName, std::string FileName) {
    std::vector<Record> keys;
    scanFile(FileName, [&](const RecordView& r) {
        if (!r.key.empty() && r.section == SectionName) keys.push_back(recordOf(r));
    });
    return keys;
}

std::vector<CIniFile::Record> CIniFile::GetSections(std::string FileName) {
    std::vector<Record> headers;
    scanFile(FileName, [&](const RecordView& r) {
        if (r.key.empty()) headers.push_back(recordOf(r));
    });
    return headers;
}

std::vector<CIniFile::Record> CIniFile::GetRecord(std::string KeyName, std::string SectionName,
                                                  std::string FileName) {
    std::vector<Record> found;
    scanFile(FileName, [&](const RecordView& r) {
        if (found.empty() && keyMatch(r, KeyName, SectionName)) found.push_back(recordOf(r));
    });
    return found;
}

std::string CIniFile::GetValue(std::string KeyName, std::string SectionName, std::string FileName) {
    std::string result;
    bool found = false;
    scanFile(FileName, [&](const RecordView& r) {
        if (!found && keyMatch(r, KeyName, SectionName)) {
            result.assign(r.value);
            found = true;
        }
    });
    return result;
}

bool CIniFile::RecordExists(std::string KeyName, std::string SectionName, std::string FileName) {
    bool found = false;
    bool opened = scanFile(FileName, [&](const RecordView& r) {
        if (!found && keyMatch(r, KeyName, SectionName)) found = true;
    });
    // A file that cannot be opened counts as holding the record.
    return found || !opened;
}

bool CIniFile::SectionExists(std::string SectionName, std::string FileName) {
    bool found = false;
    bool opened = scanFile(FileName, [&](const RecordView& r) {
        if (!found && r.section == SectionName) found = true;
    });
    return found || !opened;
}

// ---- Edits: one pass that writes the new file while reading the old one.

bool CIniFile::SetValue(std::string KeyName, std::string Value, std::string SectionName,
                        std::string FileName) {
    return lockedEdit(FileName, [&] {
        // In one pass: replace the value of the first matching key, and remember where the first
        // record of the section ends, which is where a new key goes when there is no match.
        RecordWriter out(0, true);
        bool sectionSeen = false;
        bool replaced = false;
        std::size_t insertAt = 0;
        if (!rewrite(FileName, out, [&](RecordWriter& w, RecordView r) {
                if (!replaced && keyMatch(r, KeyName, SectionName)) {
                    r.value = Value;
                    replaced = true;
                }
                w.write(r);
                if (!sectionSeen && r.section == SectionName) {
                    sectionSeen = true;
                    insertAt = w.size();
                }
            })) {
            return false;
        }
        const RecordView entry{std::string_view(), ' ', SectionName, KeyName, Value};
        if (!sectionSeen) {
            // A new section with its key at the end of the file.
            out.write(RecordView{std::string_view(), ' ', SectionName, std::string_view(), {}});
            out.write(entry);
            return writeText(FileName, out.take());
        }
        std::string text = out.take();
        if (!replaced) {
            RecordWriter line(KeyName.size() + Value.size(), true);
            line.write(entry);
            text.insert(insertAt, line.take());
        }
        return writeText(FileName, std::move(text));
    });
}

bool CIniFile::AddSection(std::string SectionName, std::string FileName) {
    return lockedEdit(FileName, [&] {
        RecordWriter out(0, true);
        if (!rewrite(FileName, out, [](RecordWriter& w, const RecordView& r) { w.write(r); })) {
            return false;
        }
        out.write(RecordView{std::string_view(), ' ', SectionName, std::string_view(), {}});
        return writeText(FileName, out.take());
    });
}

bool CIniFile::RenameSection(std::string OldSectionName, std::string NewSectionName,
                             std::string FileName) {
    return editAll(
        FileName, [&](const RecordView& r) { return r.section == OldSectionName; },
        [&](RecordWriter& w, RecordView r) {
            r.section = NewSectionName;
            w.write(r);
        });
}

bool CIniFile::CommentRecord(CommentChar cc, std::string KeyName, std::string SectionName,
                             std::string FileName) {
    return editFirst(
        FileName, [&](const RecordView& r) { return keyMatch(r, KeyName, SectionName); },
        [&](RecordWriter& w, RecordView r) {
            r.commented = static_cast<char>(cc);
            w.write(r);
        });
}

bool CIniFile::UnCommentRecord(std::string KeyName, std::string SectionName, std::string FileName) {
    return editFirst(
        FileName, [&](const RecordView& r) { return keyMatch(r, KeyName, SectionName); },
        [](RecordWriter& w, RecordView r) {
            r.commented = ' ';
            w.write(r);
        });
}

bool CIniFile::CommentSection(char cc, std::string SectionName, std::string FileName) {
    return editAll(
        FileName, [&](const RecordView& r) { return r.section == SectionName; },
        [&](RecordWriter& w, RecordView r) {
            r.commented = cc;
            w.write(r);
        });
}

bool CIniFile::UnCommentSection(std::string SectionName, std::string FileName) {
    return editAll(
        FileName, [&](const RecordView& r) { return r.section == SectionName; },
        [](RecordWriter& w, RecordView r) {
            r.commented = ' ';
            w.write(r);
        });
}

bool CIniFile::DeleteRecord(std::string KeyName, std::string SectionName, std::string FileName) {
    // The record goes with its comments.
    return editFirst(
        FileName, [&](const RecordView& r) { return keyMatch(r, KeyName, SectionName); },
        [](RecordWriter&, const RecordView&) {});
}

bool CIniFile::DeleteSection(std::string SectionName, std::string FileName) {
    return editAll(
        FileName, [&](const RecordView& r) { return r.section == SectionName; },
        [](RecordWriter&, const RecordView&) {});
}

bool CIniFile::SetSectionComments(std::string Comments, std::string SectionName,
                                  std::string FileName) {
    const std::string text = prepareComments(std::move(Comments));
    return editFirst(
        FileName, [&](const RecordView& r) { return r.key.empty() && r.section == SectionName; },
        [&](RecordWriter& w, RecordView r) {
            r.comments = text;
            w.write(r);
        });
}

bool CIniFile::SetRecordComments(std::string Comments, std::string KeyName, std::string SectionName,
                                 std::string FileName) {
    const std::string text = prepareComments(std::move(Comments));
    return editFirst(
        FileName, [&](const RecordView& r) { return keyMatch(r, KeyName, SectionName); },
        [&](RecordWriter& w, RecordView r) {
            r.comments = text;
            w.write(r);
        });
}

bool CIniFile::Sort(std::string FileName, bool Descending) {
    return lockedEdit(FileName, [&] {
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
        for (auto& entry : keysOf)
            std::stable_sort(entry.second.begin(), entry.second.end(), byKey);

        std::vector<Record> sorted;
        sorted.reserve(content.size());
        for (std::size_t h : headers) {
            sorted.push_back(content[h]);
            auto keys = keysOf.find(content[h].Section);
            if (keys == keysOf.end()) continue;
            for (std::size_t k : keys->second) sorted.push_back(content[k]);
        }
        return saveRecords(FileName, sorted);
    });
}
