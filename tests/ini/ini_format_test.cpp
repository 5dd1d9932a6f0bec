// Reading and writing the file format: what a file turns into (Content), what is written back
// (the bytes of a saved file), Create, and files that cannot be read.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::kLineEnd;
using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

namespace {

std::string lines(std::initializer_list<std::string> parts) {
    std::string s;
    for (const std::string& p : parts) s += p + kLineEnd;
    return s;
}

// Rewrites the file through an edit that changes no record, so it holds what Save writes.
std::string resaved(const std::string& path) {
    EXPECT_TRUE(CIniFile::RenameSection("\x01no such section", "\x01unused", path));
    return readFile(path);
}

}  // namespace

TEST(IniFormat, EmptyBlankAndCommentOnlyFilesHaveNoRecords) {
    TempDir dir;
    for (const std::string& text :
         {std::string(), std::string("\n\n  \t\r\n"), std::string("; one\n# two\n\n;three\n")}) {
        writeFile(dir.file("a.ini"), text);
        EXPECT_EQ(CIniFile::Content(dir.file("a.ini")), "");
        EXPECT_TRUE(CIniFile::GetSectionNames(dir.file("a.ini")).empty());
        EXPECT_FALSE(CIniFile::SectionExists("", dir.file("a.ini")));
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
              "top=1\n"
              "; note\n; more\n[Main]\n"
              "Port=COM3\n"
              ";Baud=9600\n"
              "key = 5\n"
              "a=b=c\n"
              "[Main]\n"
              "[]\n"
              "; lost\n#[Old]\n"
              "k=v\n"
              "ath=a[1\n"
              "a=b\n");
    EXPECT_EQ(CIniFile::GetValue("ath", "ath=a[1", path), "a[1");
    EXPECT_EQ(CIniFile::GetValue("k", "Old", path), "v");
    EXPECT_EQ(CIniFile::GetValue("a", "a=b", path), "b");

    EXPECT_EQ(CIniFile::GetSection("Main", path).size(), 4u);

    // Saving writes the comment character or a blank in front of every entry.
    EXPECT_EQ(resaved(path), lines({" top=1", "; note", "; more", " [Main]", " Port=COM3",
                                    ";Baud=9600", " key = 5", " a=b=c", " [Main]", " []", "; lost",
                                    "#[Old]", " k=v", " ath=a[1", " a=b"}));
    // The entry taken apart at its '[' cannot be read back: its line now has no ']'.
    EXPECT_THROW(CIniFile::Content(path), std::out_of_range);
}

TEST(IniFormat, CrLfFilesReadLikeLfFiles) {
    TempDir dir;
    writeFile(dir.file("lf.ini"), "; c\n[S]\nk=v\n\nx = y \n");
    writeFile(dir.file("crlf.ini"), "; c\r\n[S]\r\nk=v\r\n\r\nx = y \r\n");
    EXPECT_EQ(CIniFile::Content(dir.file("crlf.ini")), CIniFile::Content(dir.file("lf.ini")));
    EXPECT_EQ(CIniFile::Content(dir.file("crlf.ini")), "; c\n[S]\nk=v\nx = y\n");
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
    // Without a line feed the bad line is never read.
    writeFile(path, "[S]\nk=1\n[Main");
    EXPECT_EQ(CIniFile::Content(path), "[S]\nk=1\n");
}

TEST(IniFormat, CreateWritesAnEmptyFile) {
    TempDir dir;
    const std::string path = dir.file("new.ini");
    ASSERT_TRUE(CIniFile::Create(path));
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_EQ(readFile(path), "");
    writeFile(path, "[S]\nk=v\n");
    ASSERT_TRUE(CIniFile::Create(path));
    EXPECT_EQ(readFile(path), "");
    EXPECT_FALSE(CIniFile::Create(dir.file("missing-folder/new.ini")));
}

TEST(IniFormat, MissingFilesAndFoldersCannotBeRead) {
    TempDir dir;
    std::filesystem::create_directory(dir.file("folder.ini"));
    for (const std::string& path : {dir.file("missing.ini"), dir.file("folder.ini")}) {
        EXPECT_EQ(CIniFile::Content(path), "");
        EXPECT_TRUE(CIniFile::GetSectionNames(path).empty());
        EXPECT_EQ(CIniFile::GetValue("k", "S", path), "");
        EXPECT_FALSE(CIniFile::SetValue("k", "v", "S", path));
        EXPECT_FALSE(CIniFile::AddSection("S", path));
    }
    EXPECT_FALSE(std::filesystem::exists(dir.file("missing.ini")));
    EXPECT_FALSE(CIniFile::Create(dir.file("folder.ini")));
    EXPECT_TRUE(std::filesystem::is_directory(dir.file("folder.ini")));
}

TEST(IniFormat, LongLinesManyRecordsAndOddBytesAreKept) {
    TempDir dir;
    const std::string path = dir.file("big.ini");
    const std::string big(1 << 20, 'v');
    std::string text = "[S]\nlong=" + big + "\n";
    text += std::string("nul=a\0b\n", 8);
    text += "high=\xff\xfe\n";
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
