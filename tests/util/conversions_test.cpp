#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>
#include <random>
#include <string>

#include "quelworks/util/conversions.h"

namespace {

std::string printfG(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%g", v);
    return buf;
}

float floatFromBits(std::uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

TEST(Conversions, Formatting) {
    EXPECT_EQ(convertInt(INT_MIN), "-2147483648");
    EXPECT_EQ(convertInt(INT_MAX), "2147483647");
    EXPECT_EQ(convertInt(-42), "-42");
    EXPECT_EQ(convertInt(0), "0");
    EXPECT_EQ(convertFloat(0.0f), "0");
    EXPECT_EQ(convertFloat(-0.0f), "-0");
    EXPECT_EQ(convertFloat(0.5f), "0.5");
    EXPECT_EQ(convertFloat(0.1f), "0.1");
    EXPECT_EQ(convertFloat(3.14159265f), "3.14159");
    EXPECT_EQ(convertFloat(100000.0f), "100000");
    EXPECT_EQ(convertFloat(1234567.0f), "1.23457e+06");
    EXPECT_EQ(convertFloat(123456.7f), "123457");
    EXPECT_EQ(convertFloat(1e-05f), "1e-05");
    EXPECT_EQ(convertFloat(1e10f), "1e+10");
    EXPECT_EQ(convertBool(true), "1");
    EXPECT_EQ(convertBool(false), "0");
}

// convertFloat is "%g" of the value widened to double, for every kind of float: normal,
// subnormal, the extremes, infinities and NaNs of either sign.
TEST(Conversions, FloatMatchesPrintfG) {
    const float specials[] = {std::numeric_limits<float>::min(),
                              std::numeric_limits<float>::denorm_min(),
                              std::numeric_limits<float>::max(),
                              -std::numeric_limits<float>::max(),
                              std::numeric_limits<float>::infinity(),
                              -std::numeric_limits<float>::infinity(),
                              std::numeric_limits<float>::quiet_NaN(),
                              -std::numeric_limits<float>::quiet_NaN(),
                              999999.5f,
                              9999995.0f,
                              0.0001f,
                              0.00001f};
    for (float f : specials) EXPECT_EQ(convertFloat(f), printfG(f)) << printfG(f);

    std::mt19937 rng(99);
    std::uniform_real_distribution<float> human(-2000.0f, 2000.0f);
    for (int i = 0; i < 100000; ++i) {
        const float f =
            (i % 2 == 0) ? floatFromBits(static_cast<std::uint32_t>(rng())) : human(rng);
        ASSERT_EQ(convertFloat(f), printfG(f)) << "bits of " << printfG(f);
    }
    // Every subnormal exponent range and the boundary around 1e-5 / 1e6.
    for (std::uint32_t bits = 1; bits < 0x00800000u; bits = bits * 3 + 1) {
        ASSERT_EQ(convertFloat(floatFromBits(bits)), printfG(floatFromBits(bits)));
    }
}

TEST(Conversions, IntMatchesPrintf) {
    std::mt19937 rng(5);
    for (int i = 0; i < 20000; ++i) {
        const int v = static_cast<int>(static_cast<std::uint32_t>(rng()));
        char buf[32];
        std::snprintf(buf, sizeof buf, "%d", v);
        ASSERT_EQ(convertInt(v), buf);
    }
}

TEST(Conversions, ParseInt) {
    EXPECT_EQ(convertStringToInt("  42"), 42);
    EXPECT_EQ(convertStringToInt("\t\n 42"), 42);
    EXPECT_EQ(convertStringToInt("42  "), 42);
    EXPECT_EQ(convertStringToInt("-12x"), -12);
    EXPECT_EQ(convertStringToInt("+7"), 7);
    EXPECT_EQ(convertStringToInt("12abc"), 12);
    EXPECT_EQ(convertStringToInt("7.9"), 7);
    EXPECT_EQ(convertStringToInt("0x10"), 0);
    EXPECT_EQ(convertStringToInt("007"), 7);
    EXPECT_EQ(convertStringToInt("abc"), 0);
    EXPECT_EQ(convertStringToInt("- 5"), 0);
    EXPECT_EQ(convertStringToInt(""), 0);
    EXPECT_EQ(convertStringToInt("   "), 0);
    EXPECT_EQ(convertStringToInt("2147483647"), INT_MAX);
    EXPECT_EQ(convertStringToInt("-2147483648"), INT_MIN);
    // Outside the 32-bit range the extraction fails; the nearest limit or 0 are both fine.
    const int high = convertStringToInt("2147483648");
    EXPECT_TRUE(high == INT_MAX || high == 0) << high;
    const int low = convertStringToInt("-99999999999999999999");
    EXPECT_TRUE(low == INT_MIN || low == 0) << low;
    EXPECT_EQ(convertStringToInt(convertInt(INT_MIN)), INT_MIN);
}

TEST(Conversions, ParseFloat) {
    EXPECT_EQ(convertStringToFloat("1,5"), 1.0f);
    EXPECT_EQ(convertStringToFloat("3.5 m"), 3.5f);
    EXPECT_EQ(convertStringToFloat("2.5e3"), 2500.0f);
    EXPECT_EQ(convertStringToFloat("  -0.25"), -0.25f);
    EXPECT_EQ(convertStringToFloat(".5"), 0.5f);
    EXPECT_EQ(convertStringToFloat("abc"), 0.0f);
    EXPECT_EQ(convertStringToFloat(""), 0.0f);
    // Nine significant digits bring every finite float back exactly.
    std::mt19937 rng(11);
    for (int i = 0; i < 20000; ++i) {
        const float f = floatFromBits(static_cast<std::uint32_t>(rng()));
        if (!std::isfinite(f)) continue;
        char buf[64];
        std::snprintf(buf, sizeof buf, "%.9g", f);
        ASSERT_EQ(convertStringToFloat(buf), f) << buf;
    }
}

TEST(Conversions, ParseBoolOnlyTheExactWord) {
    EXPECT_TRUE(convertStringToBool("true"));
    for (const char* text : {"True", "TRUE", "1", "yes", "t", "tru", "trueish", " true", "true\n",
                             "", "false", "truE"}) {
        EXPECT_FALSE(convertStringToBool(text)) << '"' << text << '"';
    }
    EXPECT_FALSE(convertStringToBool(std::string("true\0", 5)));
    EXPECT_FALSE(convertStringToBool(convertBool(true)));  // "1": deliberately not symmetric
}

}  // namespace
