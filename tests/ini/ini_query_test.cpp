// Queries: section names, sections, records, values and the two existence tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::TempDir;
using ini_test::writeFile;

namespace {

const char* const kFile =
    "loose=1\n"
    "[Main]\n"
    "; the port\n"
    "Port=COM3\n"
    ";Port=COM4\n"
    "Empty=\n"
    "#[Old]\n"
    "x=1\n"
    "[Main]\n"
    "Port=COM9\n"
    "Extra=yes\n"
    "=v\n";

class IniQuery : public ::testing::Test {
protected:
    void SetUp() override { writeFile(path, kFile); }
    TempDir dir;
    std::string path = dir.file("q.ini");
};

}  // namespace

TEST_F(IniQuery, SectionNamesKeepDuplicatesCommentedHeadersAndEmptyKeyRecords) {
    EXPECT_EQ(CIniFile::GetSectionNames(path),
              (std::vector<std::string>{"Main", "Old", "Main", "Main"}));
}

TEST_F(IniQuery, SectionCollectsKeysFromEveryOccurrenceInFileOrder) {
    std::vector<CIniFile::Record> main = CIniFile::GetSection("Main", path);
    ASSERT_EQ(main.size(), 5u);
    EXPECT_EQ(main[0].Key, "Port");
    EXPECT_EQ(main[0].Comments, "; the port\n");
    EXPECT_EQ(main[1].Commented, ';');
    EXPECT_EQ(main[1].Value, "COM4");
    EXPECT_EQ(main[3].Value, "COM9");
    EXPECT_EQ(main[4].Key, "Extra");
    EXPECT_EQ(CIniFile::GetSection("", path).size(), 1u);
    EXPECT_TRUE(CIniFile::GetSection("main", path).empty());
}

TEST_F(IniQuery, RecordAndValueGiveTheFirstMatch) {
    std::vector<CIniFile::Record> r = CIniFile::GetRecord("Port", "Main", path);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].Value, "COM3");
    EXPECT_EQ(r[0].Comments, "; the port\n");
    EXPECT_EQ(r[0].Commented, ' ');
    EXPECT_EQ(r[0].Section, "Main");
    EXPECT_EQ(CIniFile::GetValue("x", "Old", path), "1");  // under a commented-out header
    EXPECT_EQ(CIniFile::GetValue("loose", "", path), "1");
    EXPECT_EQ(CIniFile::GetValue("Empty", "Main", path), "");
    EXPECT_EQ(CIniFile::GetValue("Missing", "Main", path), "");
    EXPECT_EQ(CIniFile::GetValue("port", "Main", path), "");
    EXPECT_EQ(CIniFile::GetValue("Port", "main", path), "");
    EXPECT_TRUE(CIniFile::GetRecord("Missing", "Main", path).empty());
}

TEST_F(IniQuery, CommentedOutEntriesAreFoundLikeLiveOnes) {
    writeFile(path, "[Main]\n;Port=COM3\n");
    EXPECT_EQ(CIniFile::GetValue("Port", "Main", path), "COM3");
    EXPECT_TRUE(CIniFile::RecordExists("Port", "Main", path));
}

TEST_F(IniQuery, ExistenceTests) {
    EXPECT_TRUE(CIniFile::RecordExists("Empty", "Main", path));
    EXPECT_FALSE(CIniFile::RecordExists("Empty", "Old", path));
    EXPECT_TRUE(CIniFile::SectionExists("Old", path));
    EXPECT_TRUE(CIniFile::SectionExists("", path));  // a key before the first header
    EXPECT_FALSE(CIniFile::SectionExists("MAIN", path));
    writeFile(path, "; only a comment\n");
    EXPECT_FALSE(CIniFile::SectionExists("", path));
    EXPECT_FALSE(CIniFile::RecordExists("", "", path));
}

TEST_F(IniQuery, AFileThatCannotBeOpenedHoldsEverythingAndNothing) {
    const std::string missing = dir.file("missing.ini");
    EXPECT_TRUE(CIniFile::RecordExists("k", "S", missing));
    EXPECT_TRUE(CIniFile::SectionExists("S", missing));
    EXPECT_TRUE(CIniFile::GetSectionNames(missing).empty());
    EXPECT_TRUE(CIniFile::GetSection("S", missing).empty());
    EXPECT_TRUE(CIniFile::GetRecord("k", "S", missing).empty());
    EXPECT_EQ(CIniFile::GetValue("k", "S", missing), "");
}
