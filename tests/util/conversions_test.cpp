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

float floatFromBits(std::uint32_t bits) {
    float f;
    std::memcpy(&f, &bits, sizeof f);
    return f;
}

template <typename T>
std::string printed(const char* format, T value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, value);
    return buf;
}

// convertFloat is "%g" of the value widened to double and convertInt is "%d", for every kind of
// value: normal, subnormal, extremes, infinities and NaNs of either sign.
TEST(Conversions, FormattingMatchesPrintf) {
    using L = std::numeric_limits<float>;
    const float specials[] = {0.0f,     -0.0f,         999999.5f,     9999995.0f,
                              L::max(), L::infinity(), -L::infinity()};
    for (float f : specials) EXPECT_EQ(convertFloat(f), printed("%g", f));
    EXPECT_EQ(convertFloat(1234567.0f), "1.23457e+06");

    std::mt19937 rng(99);
    std::uniform_real_distribution<float> human(-2000.0f, 2000.0f);
    for (int i = 0; i < 100000; ++i) {
        const float f =
            (i % 2 == 0) ? floatFromBits(static_cast<std::uint32_t>(rng())) : human(rng);
        ASSERT_EQ(convertFloat(f), printed("%g", f));
        const int v = static_cast<int>(static_cast<std::uint32_t>(rng()));
        ASSERT_EQ(convertInt(v), printed("%d", v));
    }
    for (std::uint32_t bits = 1; bits < 0x00800000u; bits = bits * 3 + 1)
        ASSERT_EQ(convertFloat(floatFromBits(bits)), printed("%g", floatFromBits(bits)));
    EXPECT_EQ(convertInt(INT_MIN), "-2147483648");
    EXPECT_EQ(convertBool(true), "1");
    EXPECT_EQ(convertBool(false), "0");
}

// Leading white space is skipped, the longest numeric prefix is taken, a failure gives 0.
TEST(Conversions, ParsingTakesTheLongestNumericPrefix) {
    const char* texts[] = {"  42", "\t\n 42  ", "-12x", "+7",    "7.9",   "0x10", "abc",
                           "- 5",  "",          "1,5",  "3.5 m", "2.5e3", ".5",   "2147483647"};
    const int ints[] = {42, 42, -12, 7, 7, 0, 0, 0, 0, 1, 3, 2, 0, INT_MAX};
    const float floats[] = {42, 42, -12, 7, 7.9f, 0, 0, 0, 0, 1, 3.5f, 2500, 0.5f, 2147483648.0f};
    for (int i = 0; i < 14; ++i) {
        EXPECT_EQ(convertStringToInt(texts[i]), ints[i]) << '"' << texts[i] << '"';
        EXPECT_EQ(convertStringToFloat(texts[i]), floats[i]) << '"' << texts[i] << '"';
    }
    // Outside the 32-bit range the extraction fails; the nearest limit or 0 are both fine.
    const int high = convertStringToInt("2147483648");
    EXPECT_TRUE(high == INT_MAX || high == 0) << high;
    // Nine significant digits bring every finite float back exactly.
    std::mt19937 rng(11);
    for (int i = 0; i < 20000; ++i) {
        const float f = floatFromBits(static_cast<std::uint32_t>(rng()));
        if (std::isfinite(f)) {
            ASSERT_EQ(convertStringToFloat(printed("%.9g", f)), f) << f;
        }
    }
}

TEST(Conversions, ParseBoolOnlyTheExactWord) {
    EXPECT_TRUE(convertStringToBool("true"));
    for (const char* text : {"True", "TRUE", "1", "yes", "t", "tru", "trueish", " true", "true\n",
                             "", "false", "truE"}) {
        EXPECT_FALSE(convertStringToBool(text)) << '"' << text << '"';
    }
    EXPECT_FALSE(convertStringToBool(std::string("true\0", 5)));
}

}  // namespace
