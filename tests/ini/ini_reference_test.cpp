// The one-pass implementation against the plain reference (ini_reference.h) on many random files:
// every query result, every edit's result and every written byte must be the same.
#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "ini/ini_reference.h"
#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

// At global scope, where the comparison of vectors of records finds it.
static bool operator==(const CIniFile::Record& a, const CIniFile::Record& b) {
    return a.Comments == b.Comments && a.Commented == b.Commented && a.Section == b.Section &&
           a.Key == b.Key && a.Value == b.Value;
}

namespace {

// Random text built from the pieces INI files (and broken ones) are made of, over a few short
// names so that lookups and edits hit often.
class RandomIni {
public:
    explicit RandomIni(unsigned seed) : rng_(seed) {}

    std::string name() {
        static const char* const names[] = {"A", "B", "a", "Main", "", " x", "k", "K", "\xe4"};
        return names[pick(9)];
    }

    std::string file() {
        std::string text;
        int lines = static_cast<int>(pick(25));
        for (int i = 0; i < lines; ++i) text += line() + (pick(8) == 0 ? "\r\n" : "\n");
        if (pick(4) == 0) text += line();  // an unterminated last line
        return text;
    }

    std::size_t pick(std::size_t n) {
        return std::uniform_int_distribution<std::size_t>(0, n - 1)(rng_);
    }

private:
    std::string blanks() { return std::string(pick(3), pick(2) ? ' ' : '\t'); }

    std::string line() {
        std::string pre = pick(5) == 0 ? std::string(1, "#;"[pick(2)]) + blanks() : "";
        switch (pick(12)) {
            case 0:
                return "";
            case 1:
                return blanks();
            case 2:
                return "; comment " + name();
            case 3:
                return "#" + name();
            case 4:
            case 5:
                return blanks() + pre + "[" + name() + "]" + blanks();
            case 6:
                return pre + name() + "=" + name() + "=" + name();
            case 7:
                return pre + "[" + name() + "=" + name() + "]";
            case 8:
                return pre + name() + "=a[" + name() + "]";
            case 9:
                return pick(6) == 0 ? "[" + name() : "plain " + name();
            default:
                return blanks() + pre + name() + "=" + blanks() + name() + blanks();
        }
    }

    std::mt19937 rng_;
};

// Runs both sides; both must throw out_of_range or both give equal results.
template <class T>
void expectSame(const std::function<T()>& lib, const std::function<T()>& ref, const char* what,
                const std::string& text) {
    bool libThrew = false;
    bool refThrew = false;
    T a{};
    T b{};
    try {
        a = lib();
    } catch (const std::out_of_range&) {
        libThrew = true;
    }
    try {
        b = ref();
    } catch (const std::out_of_range&) {
        refThrew = true;
    }
    ASSERT_EQ(libThrew, refThrew) << what << " on\n" << text;
    if (!libThrew) {
        ASSERT_TRUE(a == b) << what << " on\n" << text;
    }
}

}  // namespace

TEST(IniReference, QueriesGiveTheSameResults) {
    TempDir dir;
    const std::string path = dir.file("q.ini");
    RandomIni random(1234);
    for (int round = 0; round < 400; ++round) {
        const std::string text = random.file();
        writeFile(path, text);
        const std::string s = random.name();
        const std::string k = random.name();
        namespace ref = ini_reference;
        expectSame<std::string>([&] { return CIniFile::Content(path); },
                                [&] { return ref::content(path); }, "Content", text);
        expectSame<std::vector<std::string>>([&] { return CIniFile::GetSectionNames(path); },
                                             [&] { return ref::getSectionNames(path); },
                                             "GetSectionNames", text);
        expectSame<std::vector<CIniFile::Record>>([&] { return CIniFile::GetSection(s, path); },
                                                  [&] { return ref::getSection(s, path); },
                                                  "GetSection", text);
        expectSame<std::vector<CIniFile::Record>>([&] { return CIniFile::GetRecord(k, s, path); },
                                                  [&] { return ref::getRecord(k, s, path); },
                                                  "GetRecord", text);
        expectSame<std::string>([&] { return CIniFile::GetValue(k, s, path); },
                                [&] { return ref::getValue(k, s, path); }, "GetValue", text);
        expectSame<bool>([&] { return CIniFile::RecordExists(k, s, path); },
                         [&] { return ref::recordExists(k, s, path); }, "RecordExists", text);
        expectSame<bool>([&] { return CIniFile::SectionExists(s, path); },
                         [&] { return ref::sectionExists(s, path); }, "SectionExists", text);
    }
}

TEST(IniReference, EditsWriteTheSameBytes) {
    TempDir dir;
    const std::string libPath = dir.file("lib.ini");
    const std::string refPath = dir.file("ref.ini");
    RandomIni random(99);
    namespace ref = ini_reference;
    for (int round = 0; round < 200; ++round) {
        const std::string text = random.file();
        writeFile(libPath, text);
        writeFile(refPath, text);
        for (int step = 0; step < 4; ++step) {
            const std::string s = random.name();
            const std::string t = random.name();
            const std::string k = random.name();
            const std::string v = random.name();
            const std::string c =
                random.pick(3) == 0 ? "x" : "; " + v + (random.pick(2) ? "\n" : "");
            const char cc = "#;!"[random.pick(3)];
            const bool flag = random.pick(2) == 0;
            // Each edit, run on the library (true) or the reference (false).
            using Edit = std::function<bool(bool, const std::string&)>;
            const Edit edits[] = {
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::SetValue(k, v, s, f) : ref::setValue(k, v, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::AddSection(s, f) : ref::addSection(s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::RenameSection(s, t, f) : ref::renameSection(s, t, f);
                },
                [&](bool lib, const std::string& f) {
                    auto e = flag ? CIniFile::Hash : CIniFile::Semicolon;
                    return lib ? CIniFile::CommentRecord(e, k, s, f)
                               : ref::setRecordCommented(static_cast<char>(e), k, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::UnCommentRecord(k, s, f)
                               : ref::setRecordCommented(' ', k, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::CommentSection(cc, s, f)
                               : ref::setSectionCommented(cc, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::UnCommentSection(s, f)
                               : ref::setSectionCommented(' ', s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::DeleteRecord(k, s, f) : ref::deleteRecord(k, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::DeleteSection(s, f) : ref::deleteSection(s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::SetSectionComments(c, s, f)
                               : ref::setSectionComments(c, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::SetRecordComments(c, k, s, f)
                               : ref::setRecordComments(c, k, s, f);
                },
                [&](bool lib, const std::string& f) {
                    return lib ? CIniFile::Sort(f, flag) : ref::sort(f, flag);
                },
            };
            const Edit& edit = edits[random.pick(std::size(edits))];
            const std::function<bool()> lib = [&] { return edit(true, libPath); };
            const std::function<bool()> reference = [&] { return edit(false, refPath); };
            const std::string before = readFile(libPath);
            expectSame<bool>(lib, reference, "edit", before);
            ASSERT_EQ(readFile(libPath), readFile(refPath)) << "after an edit of\n" << before;
        }
    }
}
