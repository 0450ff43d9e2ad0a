#include "support/Conversion.h"

#include <gtest/gtest.h>

using namespace std::string_literals;

TEST(Conversion, Windows1252BytesBecomeTheirCharactersAndBack)
{
    const std::pair<const char*, const wchar_t*> tCases[] = {
        {"caf\xE9", L"caf\u00E9"},
        {"\x80\x85\x99\x9F", L"\u20AC\u2026\u2122\u0178"},
        {"\x81\x8D\x8F\x90\x9D", L"\x81\x8D\x8F\x90\x9D"},
    };
    for (const auto& [pszBytes, pszText] : tCases) {
        EXPECT_EQ(csWide(pszBytes, CP_1252), pszText);
        EXPECT_EQ(csWide(pszBytes, CP_SYSTEM), pszText);
        EXPECT_EQ(csNarrow(pszText, CP_1252), pszBytes);
    }
    EXPECT_EQ(csNarrow(L"\u4E00a\U0001F600\x85", CP_1252), "?a??");
    std::string csAll;
    for (int n = 0; n < 256; ++n) {
        csAll += static_cast<char>(n);
    }
    EXPECT_EQ(csNarrow(csWide(csAll, CP_1252), CP_1252), csAll);
}

TEST(Conversion, IllFormedUTF8BecomesOneReplacementPerMaximalSubpart)
{
    const std::pair<std::string, std::wstring> tCases[] = {
        {"\xEF\xBB\xBFx", L"\uFEFFx"}, // a mark is a character like others
        {"a\0b"s, L"a\0b"s},
        {"\x80\xBF", L"\uFFFD\uFFFD"},
        {"\xC0\xAF\xC1\xBF", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // overlong
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},           // overlong
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},           // surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // above U+10FFFF
        {"\xE2\x82", L"\uFFFD"},                           // cut at the end
        {"\xE2\x82\xE2\x82\xAC", L"\uFFFD\u20AC"},         // cut by the next character
        {"a\xF1\x80\x80\xE1\x80\xC2\x62\x80",
         L"a\uFFFD\uFFFD\uFFFDb\uFFFD"}, // the Unicode standard's example
    };
    for (const auto& [csBytes, csText] : tCases) {
        EXPECT_EQ(csFromUTF8(csBytes), csText) << testing::PrintToString(csBytes);
    }
}

TEST(Conversion, WideCharactersThatAreNoneBecomeReplacements)
{
    const std::wstring cs = {L'a', wchar_t(0xD800), wchar_t(0xDFFF), wchar_t(0x110000), wchar_t(-1), L'\0',
                             L'z'};
    EXPECT_EQ(csToUTF8(L"\u00E9"), "\xC3\xA9");
    EXPECT_EQ(csToUTF8(cs), "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\0z"s);
    EXPECT_EQ(csToUTF16(cs), "a\0\xFD\xFF\xFD\xFF\xFD\xFF\xFD\xFF\0\0z\0"s);
}

TEST(Conversion, UnpairedSurrogatesOfUTF16AreReplaced)
{
    const std::pair<std::string, const wchar_t*> tCases[] = {
        {"\x3D\xD8\x00\xDE"s, L"\U0001F600"},
        {"\x3D\xD8"s, L"\uFFFD"},
        {"\x3D\xD8x\0"s, L"\uFFFDx"},
        {"\x00\xDE\x3D\xD8"s, L"\uFFFD\uFFFD"},
        {"\x3D\xD8\x3D\xD8\x00\xDE"s, L"\uFFFD\U0001F600"},
    };
    for (const auto& [csBytes, pszText] : tCases) {
        EXPECT_EQ(csFromUTF16(csBytes.data(), csBytes.size() / 2), pszText)
            << testing::PrintToString(csBytes);
    }
}

TEST(Conversion, EveryCharacterSurvivesUTF8AndUTF16)
{
    std::wstring csAll;
    std::size_t nUTF8 = 0;
    for (wchar_t c = 0; c < 0x110000; ++c) {
        if (c < 0xD800 || c > 0xDFFF) {
            csAll += c;
            nUTF8 += c < 0x80 ? 1 : c < 0x800 ? 2 : c < 0x10000 ? 3 : 4;
        }
    }
    EXPECT_EQ(csToUTF8(csAll).size(), nUTF8);
    EXPECT_TRUE(csFromUTF8(csToUTF8(csAll)) == csAll); // a message of either would be megabytes
    const std::string cs16 = csToUTF16(csAll);
    EXPECT_TRUE(csFromUTF16(cs16.data(), cs16.size() / 2) == csAll);
}
