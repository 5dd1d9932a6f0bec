// The UTF-8 name flag of the platform layer and, on Windows, the conversion of names to UTF-16.
#include "platform/system_name.h"

#include <gtest/gtest.h>

#include <thread>

#if defined(_WIN32)
#include "platform/windows_include.h"
#endif

namespace {

using quelworks::detail::namesAreUtf8;
using quelworks::detail::Utf8NameScope;

TEST(SystemName, ScopesNestAndBelongToTheirThread) {
    EXPECT_FALSE(namesAreUtf8());
    {
        Utf8NameScope outer;
        EXPECT_TRUE(namesAreUtf8());
        {
            Utf8NameScope inner;
            EXPECT_TRUE(namesAreUtf8());
        }
        EXPECT_TRUE(namesAreUtf8());
        bool other = true;
        std::thread([&] { other = namesAreUtf8(); }).join();
        EXPECT_FALSE(other);
    }
    EXPECT_FALSE(namesAreUtf8());
}

#if defined(_WIN32)
using quelworks::detail::narrowName;
using quelworks::detail::systemName;

TEST(SystemName, Utf8NamesBecomeUtf16) {
    Utf8NameScope utf8;
    std::wstring wide;
    ASSERT_TRUE(
        systemName("C:\\Pr\xC3\xBC"
                   "fung\\Ger\xC3\xA4t.ini",
                   &wide));
    EXPECT_EQ(wide, L"C:\\Pr\u00FCfung\\Ger\u00E4t.ini");
    ASSERT_TRUE(systemName("\xE6\xB8\xAC\xE5\xAE\x9A", &wide));  // two CJK characters
    EXPECT_EQ(wide, L"\u6E2C\u5B9A");
    std::string back;
    ASSERT_TRUE(narrowName(L"Ger\u00E4t", &back));
    EXPECT_EQ(back, "Ger\xC3\xA4t");
    // A broken sequence opens nothing rather than some other file.
    EXPECT_FALSE(systemName("Pr\xC3(fung", &wide));
    EXPECT_TRUE(wide.empty());
    EXPECT_TRUE(systemName("", &wide));
    EXPECT_FALSE(systemName(nullptr, &wide));
}

TEST(SystemName, NarrowNamesKeepTheirCodePageMeaning) {
    if (GetACP() != 1252) GTEST_SKIP() << "needs the Western European code page";
    std::wstring wide;
    ASSERT_TRUE(
        systemName("Pr\xFC"
                   "fung",
                   &wide));
    EXPECT_EQ(wide, L"Pr\u00FCfung");
    // The same bytes read as UTF-8 are a broken sequence.
    Utf8NameScope utf8;
    EXPECT_FALSE(
        systemName("Pr\xFC"
                   "fung",
                   &wide));
}
#endif

}  // namespace
