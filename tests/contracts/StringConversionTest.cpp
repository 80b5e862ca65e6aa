#include <clocale>

#include "contracts/StringConversion.h"
#include "contracts/TemporaryDirectory.h"
#include "tests/TestSupport.h"

namespace {

using namespace StringConversion;

// "aé€𝄞": one, two, three and four UTF-8 bytes; the last needs a surrogate pair in UTF-16.
const std::string utf8 = "a\xC3\xA9\xE2\x82\xAC\xF0\x9D\x84\x9E";
const std::wstring wide = L"a\u00E9\u20AC\U0001D11E";
const std::u16string utf16 = u"a\u00E9\u20AC\U0001D11E";

TEST(StringConversion, RoundTripsIncludingNonBmp)
{
    EXPECT_EQ(NativeToUtf8(wide), utf8);
    EXPECT_EQ(Utf8ToNative(utf8), wide);
    ASSERT_EQ(utf16.size(), 5u);
    EXPECT_EQ(Utf8ToUtf16(utf8), utf16);
    EXPECT_EQ(Utf16ToUtf8(utf16), utf8);
    EXPECT_EQ(NativeToUtf8(std::wstring(L"a\0b", 3)), std::string("a\0b", 3));
    // Under the "C" locale, and under C.UTF-8, locale text is UTF-8.
    EXPECT_EQ(NativeToLocale(wide), utf8);
    EXPECT_EQ(LocaleToNative(utf8), wide);
    if (std::setlocale(LC_CTYPE, "C.UTF-8"))
    {
        EXPECT_EQ(NativeToLocale(wide), utf8);
        EXPECT_EQ(LocaleToNative(utf8 + "\xFF"), wide + L"\uFFFD");
        std::setlocale(LC_CTYPE, "C");
    }
}

TEST(StringConversion, InvalidInputBecomesReplacementCharacters)
{
    const std::wstring r = L"\uFFFD";
    EXPECT_EQ(Utf8ToNative("\xC0\xAF"), r + r);                 // overlong
    EXPECT_EQ(Utf8ToNative("\xED\xA0\x80x"), r + r + r + L"x"); // encoded surrogate
    EXPECT_EQ(Utf8ToNative("\xF4\x90\x80\x80"), r + r + r + r); // above U+10FFFF
    EXPECT_EQ(Utf8ToNative("a\xE2\x82"), L"a" + r);              // cut off: one replacement
    EXPECT_EQ(Utf8ToNative("\xE2\x82x"), r + L"x");              // the x is not swallowed
    EXPECT_EQ(Utf8ToNative("\x80\xFF"), r + r);
    EXPECT_EQ(Utf8ToUtf16("\xF0\x9D\x84"), u"\uFFFD");
    // Lone surrogates in UTF-16, and code points that are not characters in wide strings.
    EXPECT_EQ(Utf16ToUtf8(std::u16string(1, char16_t(0xD834)) + u"x"), "\xEF\xBF\xBDx");
    EXPECT_EQ(Utf16ToUtf8(std::u16string(1, char16_t(0xDD1E))), "\xEF\xBF\xBD");
    EXPECT_EQ(NativeToUtf8(std::wstring(1, wchar_t(0xD800))), "\xEF\xBF\xBD");
    EXPECT_EQ(NativeToUtf8(std::wstring(1, wchar_t(0x110000))), "\xEF\xBF\xBD");
}

TEST(TemporaryDirectory, GivesFreshPathsAndCleansUp)
{
    std::filesystem::path where;
    {
        ZanSDK::FileIO::FileSystem::TemporaryDirectory dir;
        where = NativeToUtf8(dir.GetPath());
        ASSERT_TRUE(std::filesystem::is_directory(where));
        const std::wstring a = dir.GetTemporaryFilePath();
        EXPECT_NE(a, dir.GetTemporaryFilePath());
        EXPECT_EQ(a.rfind(dir.GetPath() + L"/", 0), 0u);
        std::filesystem::create_directories(std::filesystem::path(NativeToUtf8(a)) / "nested");
    }
    EXPECT_FALSE(std::filesystem::exists(where));
}

} // namespace
