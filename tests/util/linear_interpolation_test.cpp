#include <gtest/gtest.h>

#include <cfloat>
#include <clocale>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <locale>
#include <stdexcept>
#include <string>

#include "quelworks/util/linear_interpolation.h"

#if !defined(_WIN32)
#include <locale.h>
#endif

namespace {

namespace fs = std::filesystem;

void setUserLocale(const char* name) {
#if defined(_WIN32)
    (void)name;  // Windows takes the separator from the user's settings, not the environment
#else
    ::setenv("LC_ALL", name, 1);
#endif
}

class LookupTable : public ::testing::Test {
protected:
    void SetUp() override {
        // Numbers in these tests use '.' and ','; the user's separator must be '.'.
        setUserLocale("C");
        dir_ = fs::temp_directory_path() /
               ("qw_lut_" + std::to_string(reinterpret_cast<std::uintptr_t>(this)) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    // Writes `bytes` exactly as given to a file and returns its name.
    std::string write(const std::string& bytes, const std::string& name = "table.txt") {
        const fs::path path = dir_ / name;
        std::ofstream out(path, std::ios::binary);
        out << bytes;
        return path.string();
    }

    struct Bounds {
        float maxX = -123, minX = -123, maxY = -123, minY = -123;
    };

    bool load(LinearInterpolation& lut, const std::string& file, Bounds& b, float xScale = 1,
              float yScale = 1) {
        std::string name = file;
        return lut.InitLUT(&name[0], xScale, yScale, &b.maxX, &b.minX, &b.maxY, &b.minY);
    }

    fs::path dir_;
};

TEST_F(LookupTable, InterpolatesBothWays) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("0;0\n10;100\n"), b));
    EXPECT_EQ(b.maxX, 10);
    EXPECT_EQ(b.minX, 0);
    EXPECT_EQ(b.maxY, 100);
    EXPECT_EQ(b.minY, 0);
    EXPECT_EQ(lut.GetyValue(5), 50);
    EXPECT_EQ(lut.GetXValue(25), 2.5f);
    EXPECT_EQ(lut.GetyValue(10.5f), 0);  // outside: no extrapolation
    EXPECT_EQ(lut.GetyValue(-0.5f), 0);
    EXPECT_EQ(lut.GetXValue(100.5f), 0);
    // Exact hits at the bounds return the stored value.
    EXPECT_EQ(lut.GetyValue(10), 100);
    EXPECT_EQ(lut.GetyValue(0), 0);
    EXPECT_EQ(lut.GetXValue(100), 10);
    EXPECT_TRUE(std::isnan(lut.GetyValue(std::nanf(""))));  // passes the bounds, matches nothing
}

TEST_F(LookupTable, ScalesApplyBeforeTheBounds) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("0;0\n10;100\n"), b, 2.0f, 0.5f));
    EXPECT_EQ(b.maxX, 20);
    EXPECT_EQ(b.maxY, 50);
    EXPECT_EQ(lut.GetyValue(20), 50);
    EXPECT_EQ(lut.GetyValue(10), 25);
    EXPECT_EQ(lut.GetXValue(50), 20);
}

// CR LF line ends read like LF ones, blank lines are skipped, and a last line without a line feed
// is not read.
TEST_F(LookupTable, LineEnds) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("\r\n0;0\r\n\n10;100\r\n\r\n20;200"), b));
    EXPECT_EQ(b.maxX, 10);
    EXPECT_EQ(b.maxY, 100);
    EXPECT_EQ(lut.GetyValue(5), 50);
    EXPECT_EQ(lut.GetyValue(15), 0);

    ASSERT_TRUE(load(lut, write("0;0\n10;100\n20;200\n"), b));
    EXPECT_EQ(b.maxX, 20);
    EXPECT_EQ(lut.GetyValue(15), 150);
}

TEST_F(LookupTable, FieldsAndDecimalMarks) {
    LinearInterpolation lut;
    Bounds b;
    // Both marks read as the decimal point; a third field is ignored; a caption line with ';'
    // reads as (0, 0); fields may have blanks before the number and anything after it.
    ASSERT_TRUE(load(lut, write("x;y\n1,5;2,5\n1.5;2.5\n 100 ; 42 mm;ignored;x\n"), b));
    EXPECT_EQ(b.minX, 0);
    EXPECT_EQ(b.maxX, 100);
    EXPECT_EQ(b.minY, 0);
    EXPECT_EQ(b.maxY, 42);
    EXPECT_EQ(lut.GetyValue(1.5f), 2.5f);
    EXPECT_EQ(lut.GetyValue(100), 42);
    EXPECT_EQ(lut.GetXValue(2.5f), 1.5f);
    // An empty second field is a field: y = 0.
    ASSERT_TRUE(load(lut, write("4;;\n"), b));
    EXPECT_EQ(b.maxX, 4);
    EXPECT_EQ(b.maxY, 0);
}

// A line without ';' (or with nothing after its only ';') throws std::out_of_range out of
// InitLUT; the lines before it stay loaded and the out-parameters are not written.
TEST_F(LookupTable, LineWithoutSeparatorThrows) {
    for (const char* bad : {"caption", "5;", "12.5"}) {
        LinearInterpolation lut;
        Bounds b;
        const std::string file = write(std::string("0;0\n10;100\n") + bad + "\n20;200\n");
        EXPECT_THROW(load(lut, file, b), std::out_of_range) << bad;
        EXPECT_EQ(b.maxX, -123);
        EXPECT_EQ(b.minY, -123);
        EXPECT_EQ(lut.GetyValue(5), 50);
        EXPECT_EQ(lut.GetyValue(15), 0);  // 20;200 was not reached; bounds end at 10
    }
}

TEST_F(LookupTable, MissingOrEmptyFile) {
    for (const std::string& file :
         {(dir_ / "missing.txt").string(), write("", "empty.txt"), write("\n\r\n", "blank.txt")}) {
        LinearInterpolation lut;
        lut.AddToLUT(1, 1);  // replaced by the load
        Bounds b;
        ASSERT_TRUE(load(lut, file, b));
        EXPECT_EQ(b.maxX, 0);
        EXPECT_EQ(b.minX, FLT_MAX);
        EXPECT_EQ(b.maxY, 0);
        EXPECT_EQ(b.minY, FLT_MAX);
        EXPECT_EQ(lut.GetyValue(0), 0);
        EXPECT_EQ(lut.GetyValue(1), 0);
        EXPECT_EQ(lut.GetXValue(1), 0);
    }
    LinearInterpolation lut;
    std::string folder = dir_.string();
    EXPECT_TRUE(lut.InitLUT(&folder[0], 1, 1));  // a folder reads as no lines
}

TEST_F(LookupTable, DescendingTables) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("10;0\n0;100\n"), b));
    EXPECT_EQ(lut.GetyValue(4, false), 60);  // lower (0, 100), upper (10, 0)
    EXPECT_EQ(lut.GetXValue(25), 7.5f);      // the y column ascends
    EXPECT_EQ(lut.GetXValue(25, true), 7.5f);
    EXPECT_EQ(lut.GetyValue(10, false), 0);  // exact hit
}

// The maxima start at 0, so a table of negative values reaches up to 0, and the interpolation
// toward a missing neighbour uses (0, 0).
TEST_F(LookupTable, NegativeValuesAndTheZeroNeighbour) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("-5;-2\n-1;-4\n"), b));
    EXPECT_EQ(b.maxX, 0);
    EXPECT_EQ(b.minX, -5);
    EXPECT_EQ(b.maxY, 0);
    EXPECT_EQ(b.minY, -4);
    EXPECT_EQ(lut.GetyValue(-3), -3);
    EXPECT_EQ(lut.GetXValue(-3, false), -3);
    EXPECT_EQ(lut.GetyValue(-0.5f), -2);  // between (-1, -4) and (0, 0)

    // The first entry already above x: interpolated from (0, 0).
    ASSERT_TRUE(load(lut, write("5;10\n1;2\n"), b));
    EXPECT_EQ(lut.GetyValue(3), 6);
}

// Where upper's x equals lower's y, GetyValue averages the two y values instead of interpolating;
// GetXValue averages when the two y values are equal (no division by zero).
TEST_F(LookupTable, AveragingQuirks) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("0;5\n5;9\n"), b));
    EXPECT_EQ(lut.GetyValue(2), 7);  // not 6.6

    ASSERT_TRUE(load(lut, write("2;0\n4;-2\n"), b));
    EXPECT_EQ(lut.GetXValue(-1), 1);  // upper (2, 0), lower (0, 0): (2 + 0) / 2
}

TEST_F(LookupTable, AddedEntriesKeepTheLoadedBounds) {
    LinearInterpolation empty;
    empty.AddToLUT(1, 2);
    EXPECT_EQ(empty.GetyValue(1), 0);  // no load yet: an empty range

    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("0;0\n10;100\n"), b));
    lut.AddToLUT(20, 200);
    EXPECT_EQ(lut.GetyValue(15), 0);
    EXPECT_EQ(lut.GetyValue(10), 100);
    lut.AddToLUT(5, 7);  // searched, but behind the loaded entries
    EXPECT_EQ(lut.GetyValue(5), 50);
}

TEST_F(LookupTable, CopyAndMove) {
    LinearInterpolation lut;
    Bounds b;
    ASSERT_TRUE(load(lut, write("0;0\n10;100\n"), b));

    LinearInterpolation copy(lut);
    EXPECT_EQ(copy.GetyValue(5), 50);
    LinearInterpolation assigned;
    assigned = lut;
    EXPECT_EQ(assigned.GetXValue(50), 5);
    const LinearInterpolation& same = assigned;
    assigned = same;
    EXPECT_EQ(assigned.GetXValue(50), 5);

    LinearInterpolation moved(std::move(copy));
    EXPECT_EQ(moved.GetyValue(5), 50);
    // The source is left empty, with its bounds: a new entry is the only one it finds.
    copy.AddToLUT(10, 7);
    EXPECT_EQ(copy.GetyValue(10), 7);

    LinearInterpolation target;
    target.AddToLUT(3, 3);
    target = std::move(moved);
    EXPECT_EQ(target.GetyValue(5), 50);
    EXPECT_EQ(target.GetyValue(3), 30);  // its own (3, 3) was released
    LinearInterpolation& self = target;
    target = std::move(self);
    EXPECT_EQ(target.GetyValue(5), 50);
}

#if !defined(_WIN32)
// With a user locale whose separator is ',', both marks become ','; whether that reads as a
// decimal point depends on the process's global locale.
TEST_F(LookupTable, UserSeparatorComma) {
    const char* comma = nullptr;
    for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "de_DE"}) {
        locale_t l = newlocale(LC_NUMERIC_MASK, name, static_cast<locale_t>(0));
        if (l != static_cast<locale_t>(0)) {
            freelocale(l);
            comma = name;
            break;
        }
    }
    if (comma == nullptr) GTEST_SKIP() << "no locale with a decimal comma is installed";
    setUserLocale(comma);
    LinearInterpolation lut;
    Bounds b;
    const std::string file = write("1.5;2,5\n");
    ASSERT_TRUE(load(lut, file, b));
    EXPECT_EQ(b.maxX, 1);  // "1,5" in the classic global locale stops at ','
    EXPECT_EQ(b.maxY, 2);

    const std::locale previous = std::locale::global(std::locale(comma));
    ASSERT_TRUE(load(lut, file, b));
    std::locale::global(previous);
    EXPECT_EQ(b.maxX, 1.5f);
    EXPECT_EQ(b.maxY, 2.5f);
}
#endif

}  // namespace
