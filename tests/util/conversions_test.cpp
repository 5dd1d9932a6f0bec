#include <gtest/gtest.h>

#include <climits>

#include "quelworks/util/conversions.h"

TEST(Conversions, Formatting) {
    EXPECT_EQ(convertInt(INT_MIN), "-2147483648");
    EXPECT_EQ(convertFloat(0.1f), "0.1");
    EXPECT_EQ(convertFloat(-0.0f), "-0");
    EXPECT_EQ(convertFloat(1234567.0f), "1.23457e+06");
    EXPECT_EQ(convertBool(true), "1");
}

TEST(Conversions, Parsing) {
    EXPECT_EQ(convertStringToInt("  42"), 42);
    EXPECT_EQ(convertStringToInt("0x10"), 0);
    EXPECT_EQ(convertStringToFloat("1,5"), 1.0f);
    EXPECT_TRUE(convertStringToBool("true"));
    EXPECT_FALSE(convertStringToBool("1"));
    EXPECT_FALSE(convertStringToBool("tru"));
    EXPECT_FALSE(convertStringToBool("trueish"));
}
