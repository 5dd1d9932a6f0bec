#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <locale>
#include <stdexcept>
#include <string>
#include <vector>

#include "quelworks/util/linear_interpolation.h"

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

namespace {

class LookupTable : public ::testing::Test {
protected:
    void SetUp() override {
#if !defined(_WIN32)
        ::setenv("LC_ALL", "C", 1);  // the user's separator is '.' unless a test changes it
#endif
    }
    void TearDown() override {
        std::remove(path_.c_str());
    }

    // Writes `bytes` exactly as given to the table file and loads it.
    bool load(LinearInterpolation& lut, const std::string& bytes, float xScale = 1,
              float yScale = 1) {
        std::ofstream(path_, std::ios::binary) << bytes;
        return lut.InitLUT(&path_[0], xScale, yScale, &maxX, &minX, &maxY, &minY);
    }

    std::string path_ = ::testing::TempDir() + "qw_lut_" +
                        ::testing::UnitTest::GetInstance()->current_test_info()->name() + ".txt";
    float maxX = -123, minX = -123, maxY = -123, minY = -123;
};

TEST_F(LookupTable, InterpolatesBothWaysInsideTheBounds) {
    LinearInterpolation lut;
    ASSERT_TRUE(load(lut, "2;4\n10;100\n"));
    EXPECT_EQ((std::vector<float>{maxX, minX, maxY, minY}), (std::vector<float>{10, 2, 100, 4}));
    EXPECT_EQ(lut.GetyValue(6), 52);
    EXPECT_EQ(lut.GetXValue(52), 6);
    EXPECT_EQ(lut.GetyValue(10), 100);  // exact hits at the bounds
    EXPECT_EQ(lut.GetXValue(4), 2);
    for (float outside : {1.5f, 10.5f}) EXPECT_EQ(lut.GetyValue(outside), 0);  // no extrapolation
    EXPECT_EQ(lut.GetXValue(100.5f), 0);
    EXPECT_TRUE(std::isnan(lut.GetyValue(std::nanf(""))));  // passes the bounds, matches nothing

    // Scales apply before the bounds.
    ASSERT_TRUE(load(lut, "2;4\n10;100\n", 2.0f, 0.5f));
    EXPECT_EQ(maxX, 20);
    EXPECT_EQ(maxY, 50);
    EXPECT_EQ(lut.GetyValue(12), 26);
    EXPECT_EQ(lut.GetXValue(26), 12);
}

// CR LF reads like LF, blank lines are skipped, a last line without a line feed is not read.
// Both decimal marks read as the separator, a caption with ';' reads as (0, 0), fields after the
// second are ignored, an empty second field is 0.
TEST_F(LookupTable, LineEndsFieldsAndDecimalMarks) {
    LinearInterpolation lut;
    ASSERT_TRUE(load(lut, "\r\n0;0\r\n\n10;100\r\n\r\n20;200"));
    EXPECT_EQ(maxX, 10);
    EXPECT_EQ(lut.GetyValue(5), 50);
    EXPECT_EQ(lut.GetyValue(15), 0);

    ASSERT_TRUE(load(lut, "x;y\n1,5;2,5\n1.5;2.5\n 100 ; 42 mm;ignored;x\n"));
    EXPECT_EQ(minX, 0);
    EXPECT_EQ(maxX, 100);
    EXPECT_EQ(minY, 0);
    EXPECT_EQ(maxY, 42);
    EXPECT_EQ(lut.GetyValue(1.5f), 2.5f);
    EXPECT_EQ(lut.GetXValue(42), 100);
    ASSERT_TRUE(load(lut, "4;;\n"));
    EXPECT_EQ(maxX, 4);
}

// A line without ';' (or with nothing after its only ';') throws out of InitLUT; the lines
// before it stay loaded and the out-parameters are not written.
TEST_F(LookupTable, LineWithoutSeparatorThrows) {
    for (const char* bad : {"caption", "5;"}) {
        LinearInterpolation lut;
        EXPECT_THROW(load(lut, std::string("0;0\n10;100\n") + bad + "\n20;200\n"),
                     std::out_of_range);
        EXPECT_EQ(maxX, -123);
        EXPECT_EQ(lut.GetyValue(5), 50);
        EXPECT_EQ(lut.GetyValue(15), 0);  // 20;200 was not reached
    }
}

TEST_F(LookupTable, MissingOrEmptyFileGivesAnEmptyRange) {
    LinearInterpolation lut;
    lut.AddToLUT(1, 1);  // replaced by the load
    ASSERT_TRUE(load(lut, "\n"));
    EXPECT_EQ(maxX, 0);
    EXPECT_EQ(minX, FLT_MAX);
    EXPECT_EQ(maxY, 0);
    EXPECT_EQ(minY, FLT_MAX);
    EXPECT_EQ(lut.GetyValue(1), 0);
    std::string missing = path_ + ".missing";
    EXPECT_TRUE(lut.InitLUT(&missing[0], 1, 1));
#if !defined(_WIN32)
    // A folder or a FIFO (which must not block) reads as no lines at all, like a missing file.
    std::string fifo = path_ + ".fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    std::string folder = ::testing::TempDir();
    for (std::string* name : {&fifo, &folder}) {
        ASSERT_TRUE(load(lut, "0;0\n10;100\n"));
        EXPECT_TRUE(lut.InitLUT(&(*name)[0], 1, 1, &maxX, &minX, &maxY, &minY));
        EXPECT_EQ(maxX, 0);
        EXPECT_EQ(lut.GetyValue(5), 0);
    }
    std::remove(fifo.c_str());
#endif

    // Entries added later are searched, but only inside the loaded bounds.
    ASSERT_TRUE(load(lut, "0;0\n10;100\n"));
    lut.AddToLUT(20, 200);
    EXPECT_EQ(lut.GetyValue(15), 0);
}

TEST_F(LookupTable, DescendingTablesAndQuirks) {
    LinearInterpolation lut;
    ASSERT_TRUE(load(lut, "10;0\n0;100\n"));
    EXPECT_EQ(lut.GetyValue(4, false), 60);  // lower (0, 100), upper (10, 0)
    EXPECT_EQ(lut.GetXValue(25), 7.5f);      // the y column ascends

    // The maxima start at 0, and a missing neighbour is (0, 0).
    ASSERT_TRUE(load(lut, "-5;-2\n-1;-4\n"));
    EXPECT_EQ(maxX, 0);
    EXPECT_EQ(maxY, 0);
    EXPECT_EQ(lut.GetyValue(-3), -3);
    EXPECT_EQ(lut.GetXValue(-3, false), -3);
    EXPECT_EQ(lut.GetyValue(-0.5f), -2);  // between (-1, -4) and (0, 0)
    ASSERT_TRUE(load(lut, "5;10\n1;2\n"));
    EXPECT_EQ(lut.GetyValue(3), 6);

    // Where upper's x equals lower's y, GetyValue averages the y values (7, not 6.6); GetXValue
    // averages when the two y values are equal.
    ASSERT_TRUE(load(lut, "0;5\n5;9\n"));
    EXPECT_EQ(lut.GetyValue(2), 7);
    ASSERT_TRUE(load(lut, "2;0\n4;-2\n"));
    EXPECT_EQ(lut.GetXValue(-1), 1);
}

#if !defined(_WIN32)
// With a user locale whose separator is ',', both marks become ','; whether that reads as a
// decimal point depends on the process's global locale.
TEST_F(LookupTable, UserSeparatorComma) {
    const char* comma = "de_DE.UTF-8";
    try {
        std::locale probe(comma);
    } catch (const std::runtime_error&) {
        GTEST_SKIP() << "no locale with a decimal comma is installed";
    }
    ::setenv("LC_ALL", comma, 1);
    LinearInterpolation lut;
    ASSERT_TRUE(load(lut, "1.5;2,5\n"));
    EXPECT_EQ(maxX, 1);  // "1,5" in the classic global locale stops at ','
    EXPECT_EQ(maxY, 2);
    const std::locale previous = std::locale::global(std::locale(comma));
    EXPECT_TRUE(load(lut, "1.5;2,5\n"));
    std::locale::global(previous);
    EXPECT_EQ(maxX, 1.5f);
    EXPECT_EQ(maxY, 2.5f);
}
#endif

}  // namespace
