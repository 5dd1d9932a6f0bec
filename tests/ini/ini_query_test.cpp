// Queries: section names, sections, records, values and the two existence tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

TEST(IniQuery, NamesMatchExactlyAndTheFirstMatchWins) {
    ini_test::TempDir dir;
    const std::string path = dir.file("q.ini");
    ini_test::writeFile(path,
                        "loose=1\n[Main]\n; the port\nPort=COM3\n;Port=COM4\n;Baud=9600\nEmpty=\n"
                        "#[Old]\nx=1\n[Main]\nPort=COM9\nExtra=yes\n=v\n");
    // Duplicates, commented-out headers and records with an empty key all count as headers.
    EXPECT_EQ(CIniFile::GetSectionNames(path),
              (std::vector<std::string>{"Main", "Old", "Main", "Main"}));
    // A section's keys come from every header of that name, in file order, commented-out or not.
    std::vector<CIniFile::Record> main = CIniFile::GetSection("Main", path);
    ASSERT_EQ(main.size(), 6u);
    EXPECT_EQ(main[1].Commented, ';');
    EXPECT_EQ(main[1].Value, "COM4");
    EXPECT_EQ(main[5].Key, "Extra");
    EXPECT_TRUE(CIniFile::GetSection("main", path).empty());

    std::vector<CIniFile::Record> r = CIniFile::GetRecord("Port", "Main", path);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].Comments + r[0].Commented + r[0].Section + "|" + r[0].Value,
              "; the port\n Main|COM3");
    const struct {
        const char *key, *section, *value;
    } rows[] = {{"Baud", "Main", "9600"},  // commented out, found like a live one
                {"x", "Old", "1"},         // under a commented-out header
                {"loose", "", "1"},       {"Empty", "Main", ""}, {"Missing", "Main", ""},
                {"port", "Main", ""},     {"Port", "main", ""}};
    for (const auto& row : rows) {
        EXPECT_EQ(CIniFile::GetValue(row.key, row.section, path), row.value) << row.key;
    }

    EXPECT_TRUE(CIniFile::RecordExists("Baud", "Main", path));
    EXPECT_FALSE(CIniFile::RecordExists("Empty", "Old", path));
    EXPECT_TRUE(CIniFile::SectionExists("", path));  // a key before the first header
    EXPECT_FALSE(CIniFile::SectionExists("MAIN", path));
    ini_test::writeFile(path, "; only a comment\n");
    EXPECT_FALSE(CIniFile::SectionExists("", path));
    EXPECT_FALSE(CIniFile::RecordExists("", "", path));
}
