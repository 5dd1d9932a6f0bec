// The outline reader of the quelworks command.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../../tools/cli/polygon_file.h"

using namespace std::string_literals;
using quelworks::cli::parsePolygonText;

TEST(PolygonFile, ReadsBothFormsAndNamesTheLineOfAMalformedVertex) {
    std::vector<pointf> v;
    std::string error;
    ASSERT_TRUE(parsePolygonText("# outline\n0 0\n\n10.5,-2\r\n  +3 ,\t4e1  \n-0 7", v, error))
        << error;
    ASSERT_EQ(v.size(), 4u);
    EXPECT_TRUE(v[1].x == 10.5f && v[1].y == -2.0f && v[2].x == 3.0f && v[2].y == 40.0f);
    EXPECT_EQ(v[3].y, 7.0f);
    const std::string bad[] = {"0 0\n1\n",        "0 0\n1 2 3\n", "0 0\nx y\n", "1e40 0\n",
                               "nan 1\n",         "1 inf\n",      "1,,2\n",     "1-2\n",
                               "1 2\n3 4\0 5\n"s, "0 0\n1, 2,\n"};
    for (const std::string& text : bad) {
        EXPECT_FALSE(parsePolygonText(text, v, error)) << text;
        EXPECT_EQ(error.rfind("line ", 0), 0u) << error;
    }
    ASSERT_FALSE(parsePolygonText("0 0\n1 1\n# note\nbad\n", v, error));
    EXPECT_EQ(error.substr(0, 7), "line 4:");
    ASSERT_TRUE(parsePolygonText("", v, error));
    EXPECT_TRUE(v.empty());
}
