// Edits: the bytes each one writes, and the cases where it writes nothing.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

using ini_test::lines;
using ini_test::readFile;
using ini_test::TempDir;
using ini_test::writeFile;

class IniEdit : public ::testing::Test {
protected:
    void SetUp() override { writeFile(path, "[A]\na=1\n; about b\nb=2\n[B]\n;c=3\n"); }
    TempDir dir;
    std::string path = dir.file("e.ini");
};

TEST_F(IniEdit, SetValueAppendsInsertsOrReplaces) {
    ASSERT_TRUE(CIniFile::SetValue("k", "v", "New", path));
    EXPECT_EQ(readFile(path),
              lines({" [A]", " a=1", "; about b", " b=2", " [B]", ";c=3", " [New]", " k=v"}));
    // New keys go directly under the first record of their section, the newest first.
    ASSERT_TRUE(CIniFile::SetValue("x", "1", "A", path));
    ASSERT_TRUE(CIniFile::SetValue("y", "2", "A", path));
    // An existing key keeps its comment character and comments.
    ASSERT_TRUE(CIniFile::SetValue("c", "30", "B", path));
    ASSERT_TRUE(CIniFile::SetValue("b", "", "A", path));
    EXPECT_EQ(readFile(path), lines({" [A]", " y=2", " x=1", " a=1", "; about b", " b=", " [B]",
                                     ";c=30", " [New]", " k=v"}));
    // A section known only by its keys: after the first of them.
    writeFile(path, "top=1\n[A]\n");
    ASSERT_TRUE(CIniFile::SetValue("k", "v", "", path));
    EXPECT_EQ(readFile(path), lines({" top=1", " k=v", " [A]"}));
}

TEST_F(IniEdit, CommentAndUnCommentRecordsAndSections) {
    ASSERT_TRUE(CIniFile::CommentRecord(CIniFile::Hash, "a", "A", path));
    ASSERT_TRUE(CIniFile::UnCommentRecord("c", "B", path));
    EXPECT_FALSE(CIniFile::CommentRecord(CIniFile::Semicolon, "zz", "A", path));
    EXPECT_FALSE(CIniFile::UnCommentRecord("a", "B", path));
    EXPECT_EQ(readFile(path), lines({" [A]", "#a=1", "; about b", " b=2", " [B]", " c=3"}));

    ASSERT_TRUE(CIniFile::CommentSection(';', "A", path));
    EXPECT_EQ(readFile(path), lines({";[A]", ";a=1", "; about b", ";b=2", " [B]", " c=3"}));
    EXPECT_EQ(CIniFile::GetValue("b", "A", path), "2");  // commented sections read the same
    ASSERT_TRUE(CIniFile::UnCommentSection("A", path));
    // Any character is stored; only '#' and ';' read back as comment characters.
    ASSERT_TRUE(CIniFile::CommentSection('!', "B", path));
    EXPECT_EQ(readFile(path), lines({" [A]", " a=1", "; about b", " b=2", "![B]", "!c=3"}));
    EXPECT_EQ(CIniFile::Content(path), "[A]\na=1\n; about b\nb=2\n[[B]\n!c=3\n");
}

// Section edits do not look for duplicates; deletions take the comments with them.
TEST_F(IniEdit, AddRenameAndDeleteSectionsAndRecords) {
    ASSERT_TRUE(CIniFile::AddSection("A", path));
    ASSERT_TRUE(CIniFile::RenameSection("A", "B", path));
    EXPECT_EQ(readFile(path), lines({" [B]", " a=1", "; about b", " b=2", " [B]", ";c=3", " [B]"}));

    writeFile(path, "[A]\na=1\n; about b\nb=2\n[B]\nc=3\n; again\n[A]\nd=4\n");
    ASSERT_TRUE(CIniFile::DeleteRecord("b", "A", path));
    EXPECT_FALSE(CIniFile::DeleteRecord("b", "A", path));
    EXPECT_EQ(readFile(path), lines({" [A]", " a=1", " [B]", " c=3", "; again", " [A]", " d=4"}));
    ASSERT_TRUE(CIniFile::DeleteSection("A", path));
    EXPECT_EQ(readFile(path), lines({" [B]", " c=3"}));
    ASSERT_TRUE(CIniFile::DeleteSection("Nothing", path));
}

TEST_F(IniEdit, CommentSettersAddALineFeedToTextsOfTwoCharactersOrMore) {
    ASSERT_TRUE(CIniFile::SetSectionComments(";a", "A", path));
    EXPECT_EQ(readFile(path), lines({";a", " [A]", " a=1", "; about b", " b=2", " [B]", ";c=3"}));
    ASSERT_TRUE(CIniFile::SetSectionComments("; a\n", "A", path));
    EXPECT_EQ(readFile(path),
              lines({"; a", "", " [A]", " a=1", "; about b", " b=2", " [B]", ";c=3"}));
    ASSERT_TRUE(CIniFile::SetRecordComments("", "b", "A", path));
    ASSERT_TRUE(CIniFile::SetRecordComments("#1\n#2", "a", "A", path));
    EXPECT_EQ(readFile(path), lines({"; a", " [A]", "#1", "#2", " a=1", " b=2", " [B]", ";c=3"}));
    EXPECT_FALSE(CIniFile::SetSectionComments("; a", "Z", path));
    EXPECT_FALSE(CIniFile::SetRecordComments("; a", "a", "B", path));

    // One character is stored as it stands and lands on the header's own line, which then
    // reads back as a different section: 'x [B]' loses its 'x' and is cut at ']'.
    ASSERT_TRUE(CIniFile::SetSectionComments("x", "B", path));
    EXPECT_EQ(readFile(path), lines({"; a", " [A]", "#1", "#2", " a=1", " b=2", "x [B]", ";c=3"}));
    EXPECT_EQ(CIniFile::GetSectionNames(path), (std::vector<std::string>{"A", " [B"}));
    EXPECT_EQ(CIniFile::GetValue("c", " [B", path), "3");
}

TEST_F(IniEdit, SortOrdersBytewiseAndRepeatsKeysOfDuplicatedSections) {
    writeFile(path, "lost=1\n[b]\nz=1\nA=2\n[C]\nk=1\n[B]\nb=2\na=1\n[C]\nj=0\n");
    ASSERT_TRUE(CIniFile::Sort(path, false));
    EXPECT_EQ(readFile(path), lines({" [B]", " a=1", " b=2", " [C]", " j=0", " k=1", " [C]", " j=0",
                                     " k=1", " [b]", " A=2", " z=1"}));
    // Bytes above 0x7f sort after ASCII; a prefix sorts first.
    writeFile(path, "[\xe4]\n[ab]\n[a]\n");
    ASSERT_TRUE(CIniFile::Sort(path, false));
    EXPECT_EQ(readFile(path), lines({" [a]", " [ab]", " [\xe4]"}));
    ASSERT_TRUE(CIniFile::Sort(path, true));
    EXPECT_EQ(readFile(path), lines({" [\xe4]", " [ab]", " [a]"}));

    const std::string noHeaders = "k=v\n; c\nj=w\n";
    writeFile(path, noHeaders);
    EXPECT_FALSE(CIniFile::Sort(path, false));
    EXPECT_EQ(readFile(path), noHeaders);
}
