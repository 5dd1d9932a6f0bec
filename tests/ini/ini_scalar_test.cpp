// The line scanner without its vector path (as on processors without SSE2), compiled into this
// test only, must read every file exactly as the library's vector path does.
#define QUELWORKS_INI_SCALAR 1
#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

#include "ini/ini_parse.h"
#include "ini/ini_test_util.h"
#include "quelworks/ini/ini_file.h"

// The library's own definition is internal to it; this one serves the scalar copy.
void quelworks::detail::throwUnclosedHeader(std::string_view) {
    throw std::out_of_range("unclosed section header");
}

namespace {

// Renders like Content, through the scalar scanner.
std::string scalarContent(const std::string& text) {
    std::string out;
    std::string pending;
    quelworks::detail::parseIni(
        text, pending,
        [&](std::string_view comments, char commented, std::string_view section,
            std::string_view key, std::string_view value) {
            out.append(comments);
            if (commented != ' ') out.push_back(commented);
            if (key.empty()) {
                out.append("[").append(section).append("]");
            } else {
                out.append(key).append("=").append(value);
            }
            out.push_back('\n');
        });
    return out;
}

}  // namespace

TEST(IniScalarScan, ReadsLikeTheVectorScan) {
    ini_test::TempDir dir;
    const std::string path = dir.file("s.ini");
    std::mt19937 rng(7);
    // Lines of every length around the 16-byte blocks, with '[', '=', ']' and line ends anywhere.
    const char alphabet[] = "ab =[]#;\t\r\n\n";
    for (int round = 0; round < 2000; ++round) {
        std::string text(rng() % 200, ' ');
        for (char& c : text) c = alphabet[rng() % (sizeof alphabet - 1)];
        ini_test::writeFile(path, text);
        std::string scalar;
        std::string vector;
        bool scalarThrew = false;
        bool vectorThrew = false;
        try {
            scalar = scalarContent(text);
        } catch (const std::out_of_range&) {
            scalarThrew = true;
        }
        try {
            vector = CIniFile::Content(path);
        } catch (const std::out_of_range&) {
            vectorThrew = true;
        }
        ASSERT_EQ(scalarThrew, vectorThrew) << text;
        ASSERT_EQ(scalar, vector) << text;
    }
}
