// The one-pass implementation against the plain reference (ini_reference.h) on many random files:
// every query result, every edit's result and every written byte must be the same.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ini/ini_reference.h"
#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::readFile;
using ini_test::writeFile;
using Record = CIniFile::Record;
namespace ref = ini_reference;

// At global scope, where comparing vectors of records finds it.
static bool operator==(const Record& a, const Record& b) {
    return a.Comments == b.Comments && a.Commented == b.Commented && a.Section == b.Section &&
           a.Key == b.Key && a.Value == b.Value;
}

namespace {

// The names, values and comments of one query or edit.
struct Args {
    std::string s, t, k, v, c;
    char cc;
    bool flag;
};

// Random text built from the pieces INI files (and broken ones) are made of, over a few short
// names so that lookups and edits hit often, and one long enough to span the scanner's blocks.
class RandomIni {
public:
    explicit RandomIni(unsigned seed) : rng_(seed) {}

    std::size_t pick(std::size_t n) {
        return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_);
    }

    std::string name() {
        static const char* const names[] = {
            "A", "B", "a", "Main", "", " x", "k", "\xe4", "a rather long section name"};
        return names[pick(std::size(names))];
    }

    std::string file() {
        std::string text;
        for (std::size_t i = pick(25); i > 0; --i) text += line() + (pick(8) ? "\n" : "\r\n");
        return pick(4) ? text : text + line();  // sometimes an unterminated last line
    }

    Args args() {
        const std::string comments[] = {"x", ";c", "; " + name(), "; " + name() + "\n"};
        return {name(), name(), name(), name(), comments[pick(4)], "#;!"[pick(3)], pick(2) == 0};
    }

private:
    std::string blanks() { return std::string(pick(3), pick(2) ? ' ' : '\t'); }

    // One line: '@' stands for a name, '_' for blanks, '%' for a comment character now and then.
    std::string line() {
        static const char* const shapes[] = {"_",       "; comment @", "#@",      "_%[@]_",
                                             "_%[@]_",  "%@=@=@",      "%[@=@]",  "%@=a[@]",
                                             "plain @", "_%@=_@_",     "_%@=_@_", "_%@=_@_"};
        if (pick(72) == 0) return "[" + name();  // no ']': the whole file throws
        std::string out;
        for (const char* p = shapes[pick(std::size(shapes))]; *p != 0; ++p) {
            if (*p == '@') {
                out += name();
            } else if (*p == '_') {
                out += blanks();
            } else if (*p == '%') {
                out += pick(5) ? "" : std::string(1, "#;"[pick(2)]) + blanks();
            } else {
                out += *p;
            }
        }
        return out;
    }

    std::mt19937 rng_;
};

// What `run` gives, or nothing when it throws out_of_range.
template <class Run>
auto attempt(Run run) -> std::optional<decltype(run())> {
    try {
        return run();
    } catch (const std::out_of_range&) {
        return std::nullopt;
    }
}

// Both throw out_of_range, or both give the same result.
#define ASSERT_SAME(lib, reference, text)                                           \
    ASSERT_TRUE(attempt([&] { return lib; }) == attempt([&] { return reference; })) \
        << #lib << " on\n"                                                          \
        << text

// Edit number `op` on the file through the library.
bool libEdit(std::size_t op, const Args& a, const std::string& f) {
    const std::function<bool()> edits[] = {
        [&] { return CIniFile::SetValue(a.k, a.v, a.s, f); },
        [&] { return CIniFile::AddSection(a.s, f); },
        [&] { return CIniFile::RenameSection(a.s, a.t, f); },
        [&] {
            return CIniFile::CommentRecord(a.flag ? CIniFile::Hash : CIniFile::Semicolon, a.k, a.s,
                                           f);
        },
        [&] { return CIniFile::UnCommentRecord(a.k, a.s, f); },
        [&] { return CIniFile::CommentSection(a.cc, a.s, f); },
        [&] { return CIniFile::UnCommentSection(a.s, f); },
        [&] { return CIniFile::DeleteRecord(a.k, a.s, f); },
        [&] { return CIniFile::DeleteSection(a.s, f); },
        [&] { return CIniFile::SetSectionComments(a.c, a.s, f); },
        [&] { return CIniFile::SetRecordComments(a.c, a.k, a.s, f); },
        [&] { return CIniFile::Sort(f, a.flag); },
    };
    return edits[op]();
}

// The same edit through the reference.
bool refEdit(std::size_t op, const Args& a, const std::string& f) {
    auto key = [&](const Record& r) { return r.Section == a.s && r.Key == a.k; };
    auto section = [&](const Record& r) { return r.Section == a.s; };
    auto header = [&](const Record& r) { return r.Key.empty() && r.Section == a.s; };
    auto mark = [](char c) { return [c](Record& r) { r.Commented = c; }; };
    // Comment texts of two characters or more get a line feed added.
    const std::string text = a.c.size() >= 2 ? a.c + "\n" : a.c;
    const std::function<bool()> edits[] = {
        [&] { return ref::setValue(a.k, a.v, a.s, f); },
        [&] { return ref::addSection(a.s, f); },
        [&] { return ref::edit(f, true, section, [&](Record& r) { r.Section = a.t; }); },
        [&] { return ref::edit(f, false, key, mark(a.flag ? '#' : ';')); },
        [&] { return ref::edit(f, false, key, mark(' ')); },
        [&] { return ref::edit(f, true, section, mark(a.cc)); },
        [&] { return ref::edit(f, true, section, mark(' ')); },
        [&] { return ref::edit(f, false, key, nullptr); },
        [&] { return ref::edit(f, true, section, nullptr); },
        [&] { return ref::edit(f, false, header, [&](Record& r) { r.Comments = text; }); },
        [&] { return ref::edit(f, false, key, [&](Record& r) { r.Comments = text; }); },
        [&] { return ref::sort(f, a.flag); },
    };
    return edits[op]();
}

}  // namespace

TEST(IniReference, QueriesGiveTheSameResults) {
    ini_test::TempDir dir;
    RandomIni random(1234);
    for (int round = 0; round < 400; ++round) {
        const std::string text = random.file();
        writeFile(dir.file("q.ini"), text);
        const std::string f = dir.file(random.pick(20) ? "q.ini" : "missing.ini");
        const Args a = random.args();
        ASSERT_SAME(CIniFile::Content(f), ref::content(f), text);
        ASSERT_SAME(CIniFile::GetSectionNames(f), ref::getSectionNames(f), text);
        ASSERT_SAME(CIniFile::GetSection(a.s, f), ref::getSection(a.s, f), text);
        ASSERT_SAME(CIniFile::GetRecord(a.k, a.s, f), ref::getRecord(a.k, a.s, f), text);
        ASSERT_SAME(CIniFile::GetValue(a.k, a.s, f), ref::getValue(a.k, a.s, f), text);
        ASSERT_SAME(CIniFile::RecordExists(a.k, a.s, f), ref::recordExists(a.k, a.s, f), text);
        ASSERT_SAME(CIniFile::SectionExists(a.s, f), ref::sectionExists(a.s, f), text);
    }
}

TEST(IniReference, EditsWriteTheSameBytes) {
    ini_test::TempDir dir;
    const std::string libPath = dir.file("lib.ini");
    const std::string refPath = dir.file("ref.ini");
    RandomIni random(99);
    for (int round = 0; round < 200; ++round) {
        const std::string text = random.file();
        writeFile(libPath, text);
        writeFile(refPath, text);
        for (int step = 0; step < 4; ++step) {
            const std::string before = readFile(libPath);
            const Args a = random.args();
            const std::size_t op = random.pick(12);
            ASSERT_SAME(libEdit(op, a, libPath), refEdit(op, a, refPath),
                        "edit " << op << " of " << before);
            ASSERT_EQ(readFile(libPath), readFile(refPath)) << "edit " << op << " of\n" << before;
        }
    }
}
