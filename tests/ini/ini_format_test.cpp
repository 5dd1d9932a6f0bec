// Reading and writing the file format: what a file turns into, the bytes written back, Create,
// files that cannot be read, and large files.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::lines;
using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

TEST(IniFormat, ContentShowsTheRecordsAsRead) {
    const struct {
        const char* text;
        const char* content;
    } rows[] = {
        {"", ""},
        {"\n\n  \t\r\n", ""},
        {"; one\n# two\n\n;three\n", ""},  // comments wait for an entry that never comes
        {"; c\r\n[S]\r\nk=v\r\n\r\nx = y \r\n", "; c\n[S]\nk=v\nx = y\n"},  // CR LF
        {"[S]\nk=1\n[Main", "[S]\nk=1\n"},  // a last line without a line feed is not read
    };
    TempDir dir;
    for (const auto& row : rows) {
        writeFile(dir.file("a.ini"), row.text);
        EXPECT_EQ(CIniFile::Content(dir.file("a.ini")), row.content) << row.text;
    }
}

TEST(IniFormat, LinesAreTrimmedCommentsGatheredAndEntriesTakenApart) {
    TempDir dir;
    const std::string path = dir.file("a.ini");
    writeFile(path,
              "top=1\n"              // before any header: section ""
              "; note\n"             // two comment lines for the next entry
              "  ; more  \n"         //
              "\n"                   // blank lines vanish
              "  [Main]  \r\n"       // trimmed header
              "\tPort=COM3\t\n"      // trimmed key
              ";Baud=9600\n"         // commented-out key
              "key = 5\n"            // key and value are not trimmed inside
              "a=b=c\n"              // split at the first '='
              "=x\n"                 // empty key: counts as a header of Main
              "junk\n"               // neither: an empty record
              "; lost\n"             // a comment before a line that is neither ...
              "junk\n"               // ... drops that line, the comment waits on
              "# [Old]\n"            // commented-out header, takes the comment
              "k=v\n"                // belongs to Old
              "path=a[1]\n"          // '[' makes it a header first: 'ath=a[1'
              "# gone\n"             //
              "[a=b]\n"              // header then key; the comment is lost
              "last=no line feed");  // never read
    EXPECT_EQ(CIniFile::Content(path),
              "top=1\n; note\n; more\n[Main]\nPort=COM3\n;Baud=9600\nkey = 5\na=b=c\n[Main]\n[]\n"
              "; lost\n#[Old]\nk=v\nath=a[1\na=b\n");
    EXPECT_EQ(CIniFile::GetValue("ath", "ath=a[1", path), "a[1");
    EXPECT_EQ(CIniFile::GetValue("k", "Old", path), "v");
    EXPECT_EQ(CIniFile::GetValue("a", "a=b", path), "b");
    EXPECT_EQ(CIniFile::GetSection("Main", path).size(), 4u);

    // Rewritten by an edit that changes no record: a comment character or a blank before every
    // entry.
    ASSERT_TRUE(CIniFile::RenameSection("no such section", "unused", path));
    EXPECT_EQ(readFile(path), lines({" top=1", "; note", "; more", " [Main]", " Port=COM3",
                                     ";Baud=9600", " key = 5", " a=b=c", " [Main]", " []", "; lost",
                                     "#[Old]", " k=v", " ath=a[1", " a=b"}));
    // The entry taken apart at its '[' cannot be read back: its line now has no ']'.
    EXPECT_THROW(CIniFile::Content(path), std::out_of_range);
}

TEST(IniFormat, HeaderWithoutClosingBracketThrowsOutOfRange) {
    TempDir dir;
    const std::string path = dir.file("a.ini");
    for (const char* bad : {"[Main\n", "x[\n", "]x[\n", "[\n", "#[Old\n", "k=v\nv=[a\n"}) {
        const std::string text = std::string("[S]\nk=1\n") + bad;
        writeFile(path, text);
        EXPECT_THROW(CIniFile::Content(path), std::out_of_range) << bad;
        EXPECT_THROW(CIniFile::GetValue("k", "S", path), std::out_of_range) << bad;
        EXPECT_THROW(CIniFile::RecordExists("k", "S", path), std::out_of_range) << bad;
        EXPECT_THROW(CIniFile::SetValue("k", "2", "S", path), std::out_of_range) << bad;
        EXPECT_EQ(readFile(path), text) << "an edit that failed to load must not write";
    }
}

// A missing file, and a folder where the file should be, cannot be read: queries find nothing
// (but the existence tests say yes), edits give false and write nothing, Create fails on a folder.
TEST(IniFormat, MissingFilesAndFoldersCannotBeRead) {
    TempDir dir;
    std::filesystem::create_directory(dir.file("folder.ini"));
    for (const std::string& path : {dir.file("missing.ini"), dir.file("folder.ini")}) {
        EXPECT_EQ(CIniFile::Content(path), "");
        EXPECT_EQ(CIniFile::GetValue("k", "S", path), "");
        EXPECT_TRUE(CIniFile::RecordExists("k", "S", path));
        EXPECT_TRUE(CIniFile::SectionExists("S", path));
        EXPECT_FALSE(CIniFile::SetValue("k", "v", "S", path));
        EXPECT_FALSE(CIniFile::AddSection("S", path));
        EXPECT_FALSE(CIniFile::RenameSection("A", "B", path));
        EXPECT_FALSE(CIniFile::Sort(path, false));
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("missing.ini")));
    EXPECT_FALSE(CIniFile::Create(dir.file("folder.ini")));
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("folder.ini")));
    // Create makes a missing file, and empties an existing one.
    ASSERT_TRUE(CIniFile::Create(dir.file("missing.ini")));
    writeFile(dir.file("missing.ini"), "[S]\nk=v\n");
    ASSERT_TRUE(CIniFile::Create(dir.file("missing.ini")));
    EXPECT_EQ(readFile(dir.file("missing.ini")), "");
}

TEST(IniFormat, LongLinesManyRecordsAndOddBytesAreKept) {
    TempDir dir;
    const std::string path = dir.file("big.ini");
    const std::string big(1 << 20, 'v');
    std::string text = "[S]\nlong=" + big + "\n" + std::string("nul=a\0b\n", 8) + "high=\xff\xfe\n";
    for (int i = 0; i < 20000; ++i)
        text += "k" + std::to_string(i) + "=" + std::to_string(i) + "\n";
    writeFile(path, text);
    EXPECT_EQ(CIniFile::GetValue("long", "S", path), big);
    EXPECT_EQ(CIniFile::GetValue("nul", "S", path), std::string("a\0b", 3));
    EXPECT_EQ(CIniFile::GetValue("high", "S", path), "\xff\xfe");
    EXPECT_EQ(CIniFile::GetValue("k19999", "S", path), "19999");
    EXPECT_EQ(CIniFile::GetSection("S", path).size(), 20003u);
    ASSERT_TRUE(CIniFile::SetValue("k0", "zero", "S", path));
    EXPECT_EQ(CIniFile::GetValue("long", "S", path), big);
    EXPECT_EQ(CIniFile::GetValue("k0", "S", path), "zero");
}
