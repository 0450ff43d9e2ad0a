#include "support/Conversion.h"

#include <gtest/gtest.h>
#include <random>

using namespace std::string_literals;

TEST(Conversion, Windows1252BytesBecomeTheirCharacters)
{
    const struct
    {
        const char* psz;
        const wchar_t* pszWanted;
    } tCases[] = {
        {"caf\xE9", L"caf\u00E9"},
        {"\x80\x85\x99\x9F", L"\u20AC\u2026\u2122\u0178"},
        {"\x81\x8D\x8F\x90\x9D", L"\x81\x8D\x8F\x90\x9D"},
        {"\xA0\xFF\x7F", L"\u00A0\u00FF\x7F"},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csWide(st.psz, CP_1252), st.pszWanted);
        EXPECT_EQ(csWide(st.psz, CP_SYSTEM), st.pszWanted);
        EXPECT_EQ(csNarrow(st.pszWanted, CP_1252), st.psz);
    }
    EXPECT_EQ(csNarrow(L"\u4E00a\U0001F600\x85", CP_1252), "?a??");
}

TEST(Conversion, EveryByteOfWindows1252ComesBack)
{
    std::string csAll;
    for (int n = 0; n < 256; ++n) {
        csAll += static_cast<char>(n);
    }
    EXPECT_EQ(csNarrow(csWide(csAll, CP_1252), CP_1252), csAll);
}

TEST(Conversion, IllFormedUTF8BecomesOneReplacementPerMaximalSubpart)
{
    const struct
    {
        std::string cs;
        std::wstring csWanted;
    } tCases[] = {
        {"a\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF", L"a\x7F\u0080\u07FF\u0800\uFFFF"},
        {"\xF0\x90\x80\x80\xF4\x8F\xBF\xBF", L"\U00010000\U0010FFFF"},
        {"\xEF\xBB\xBFx", L"\uFEFFx"}, // a mark is a character like others
        {"a\0b"s, L"a\0b"s},
        {"\x80\xBF", L"\uFFFD\uFFFD"},
        {"\xC0\xAF\xC1\xBF", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // overlong
        {"\xE0\x80\xAF", L"\uFFFD\uFFFD\uFFFD"},           // overlong
        {"\xED\xA0\x80", L"\uFFFD\uFFFD\uFFFD"},           // surrogate
        {"\xF4\x90\x80\x80", L"\uFFFD\uFFFD\uFFFD\uFFFD"}, // above U+10FFFF
        {"\xF5\xFE\xFF", L"\uFFFD\uFFFD\uFFFD"},           // never lead bytes
        {"\xE2\x82", L"\uFFFD"},                           // cut at the end
        {"\xF0\x9F\x98z", L"\uFFFDz"},                     // cut in the middle
        {"\xE2\x82\xE2\x82\xAC", L"\uFFFD\u20AC"},         // cut by the next character
        {"a\xF1\x80\x80\xE1\x80\xC2"
         "b\x80",
         L"a\uFFFD\uFFFD\uFFFDb\uFFFD"}, // the Unicode standard's example
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFromUTF8(st.cs), st.csWanted) << testing::PrintToString(st.cs);
    }
}

TEST(Conversion, WideCharactersThatAreNoneBecomeReplacements)
{
    const std::wstring cs = {L'a', wchar_t(0xD800), wchar_t(0xDFFF), wchar_t(0x110000), wchar_t(-1), L'\0',
                             L'z'};
    EXPECT_EQ(csToUTF8(cs), "a\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\0z"s);
    EXPECT_EQ(csToUTF16(cs), "a\0\xFD\xFF\xFD\xFF\xFD\xFF\xFD\xFF\0\0z\0"s);
}

TEST(Conversion, UnpairedSurrogatesOfUTF16AreReplaced)
{
    const struct
    {
        std::string cs;
        const wchar_t* pszWanted;
    } tCases[] = {
        {"A\0\xAC\x20"s, L"A\u20AC"},
        {"\x3D\xD8\x00\xDE"s, L"\U0001F600"},
        {"\x3D\xD8"s, L"\uFFFD"},
        {"\x3D\xD8x\0"s, L"\uFFFDx"},
        {"\x00\xDE\x3D\xD8"s, L"\uFFFD\uFFFD"},
        {"\x3D\xD8\x3D\xD8\x00\xDE"s, L"\uFFFD\U0001F600"},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFromUTF16(st.cs.data(), st.cs.size() / 2), st.pszWanted) << testing::PrintToString(st.cs);
    }
}

TEST(Conversion, TextSurvivesUTF8AndUTF16AndGarbageDoesNoHarm)
{
    std::mt19937 clRandom(20240601);
    for (int nRound = 0; nRound < 2000; ++nRound) {
        std::wstring csText;
        std::string csGarbage;
        for (auto n = clRandom() % 40; n > 0; --n) {
            const auto nChar = static_cast<wchar_t>(clRandom() % 0x110000 >> clRandom() % 20);
            csText += nChar >= 0xD800 && nChar < 0xE000 ? L'x' : nChar;
            csGarbage += static_cast<char>(clRandom() % 2 == 0 ? clRandom() : 0x80 + clRandom() % 0x40);
        }
        const std::string cs16 = csToUTF16(csText);
        ASSERT_EQ(csFromUTF8(csToUTF8(csText)), csText);
        ASSERT_EQ(csFromUTF16(cs16.data(), cs16.size() / 2), csText);
        const std::wstring csOnce = csFromUTF8(csGarbage);
        ASSERT_LE(csOnce.size(), csGarbage.size());
        ASSERT_EQ(csFromUTF8(csToUTF8(csOnce)), csOnce);
        csFromUTF16(csGarbage.data(), csGarbage.size() / 2);
    }
}

TEST(Conversion, CuttingKeepsCharactersWhole)
{
    const struct
    {
        const char* psz;
        std::size_t nMax;
        std::size_t nWanted;
    } tCases[] = {
        {"abc", 5, 3},          {"abc", 3, 3},
        {"abc", 2, 2},          {"abc", 0, 0},
        {"a\u20ACb", 3, 1},     {"a\u20ACb", 4, 4},
        {"a\U0001F600", 4, 1},  {"\U0001F600", 3, 0},
        {"\u00E9\u00E9", 3, 2}, {"\x80\x80\x80\x80\x80", 4, 4},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(nCutUTF8(st.psz, st.nMax), st.nWanted) << st.psz << " to " << st.nMax;
    }
}
