#include "support/WinApi.h"
#include "support/XYString.h"

#include <cerrno>
#include <climits>
#include <filesystem>
#include <gtest/gtest.h>

using testing::Test;

TEST(FormatMessage, EscapesAndUnknownDirectives)
{
    const struct
    {
        const wchar_t* pszFormat;
        const wchar_t* pszWanted;
    } tCases[] = {
        {L"", L""},
        {L"plain", L"plain"},
        {L"100%% sure%!", L"100% sure!"},
        {L"a%nb%rc%td%be%.f", L"a\r\nb\rc\td e.f"},
        {L"%x%y% ", L"xy "},
        {L"end%0 of it", L"end"},
        {L"%0", L""},
        {L"a%", L"a"},
        {L"a\r\nb", L"a\r\nb"},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFormatMessage(st.pszFormat), st.pszWanted);
    }
}

TEST(FormatMessage, StringsInAnyOrderAndNumber)
{
    const struct
    {
        const wchar_t* pszFormat;
        const wchar_t* pszWanted;
    } tCases[] = {
        {L"%1", L"one"},
        {L"%2 before %1, %2 again", L"two before one, two again"},
        {L"%3", L"three"},
        {L"%1!s!%2!ls!%3!ws!", L"onetwothree"},
        {L"[%1!6s!][%1!-6s!][%3!.2s!][%3!4.1s!]", L"[   one][one   ][th][   t]"},
        {L"%12", L"twelve"},
        {L"%1%%%2", L"one%two"},
        {L"%1!", L"%1!"},
        {L"%1!s", L"%1!s"}, // ends in the middle of an insert

        {L"%1!6", L"%1!6"},
        {L"%1!*s!%2", L"%1!*s!two"},
        {L"%1!q!", L"%1!q!"},
        {L"%1!!", L"%1!!"},
        {L"%1 %1!d!", L"one %1!d!"}, // contradicts the first
        {L"[%1!99999999999s!", nullptr},
    };
    for (const auto& st : tCases) {
        const std::wstring cs = csFormatMessage(st.pszFormat, L"one", L"two", L"three", L"4", L"5", L"6",
                                                L"7", L"8", L"9", L"10", L"11", L"twelve");
        if (st.pszWanted != nullptr) {
            EXPECT_EQ(cs, st.pszWanted);
        } else {
            EXPECT_LE(cs.size(), 1001u); // widths are bounded
        }
    }
}

TEST(FormatMessage, EachInsertsTypeDecidesHowTheArgumentsAreWalked)
{
    const long long nBig = 0x123456789ALL;
    EXPECT_EQ(csFormatMessage(L"%4 %3!I64d! %2!u! %1!d!", -1, 4000000000u, nBig, L"last"),
              L"last 78187493530 4000000000 -1");
    EXPECT_EQ(csFormatMessage(L"%2!I64X! %1!c! %2!lld! %1!c!", L'\u00E9', nBig),
              L"123456789A \u00E9 78187493530 \u00E9");
    EXPECT_EQ(csFormatMessage(L"%3", 1L, nullptr, L"three"), L"three"); // the others are walked over
    EXPECT_EQ(csFormatMessage(L"%1!S!|%1!hs!|%2!C!|%2!hc!", "\xE9\x80", 0x80),
              L"\u00E9\u20AC|\u00E9\u20AC|\u20AC|\u20AC");
    EXPECT_EQ(csFormatMessage(L"%1 %2!S!", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)),
              L"(null) (null)");
}

TEST(FormatMessage, IntegersTakeFlagsWidthAndPrecision)
{
    const struct
    {
        const wchar_t* pszFormat;
        int nValue;
        const wchar_t* pszWanted;
    } tCases[] = {
        {L"%1!d!", INT_MIN, L"-2147483648"},
        {L"%1!i!", 7, L"7"},
        {L"%1!ld!", -7, L"-7"},
        {L"%1!u!", -1, L"4294967295"},
        {L"%1!lu!", -1, L"4294967295"},
        {L"%1!x!", 0xABC, L"abc"},
        {L"%1!lX!", 0xABC, L"ABC"},
        {L"%1!#x!", 255, L"0xff"},
        {L"%1!o!", 8, L"10"},
        {L"[%1!5d!]", 42, L"[   42]"},
        {L"[%1!-5d!]", 42, L"[42   ]"},
        {L"[%1!05d!]", -42, L"[-0042]"},
        {L"[%1!+.3d!]", 4, L"[+004]"},
        {L"%1!hd!", 0x1FFFF, L"-1"},
        {L"%1!hu!", 0x1FFFF, L"65535"},
        {L"%1!I32d!", 9, L"9"},
    };
    for (const auto& st : tCases) {
        EXPECT_EQ(csFormatMessage(st.pszFormat, st.nValue), st.pszWanted);
    }
    EXPECT_EQ(csFormatMessage(L"%1!2000000000.2000000000d!", 1).size(), 1000u);
}

TEST(FormatMessage, ThePrecisionBoundsWhatIsReadOfAString)
{
    const char szNoEnd[3] = {'a', 'b', 'c'};
    const wchar_t szWideNoEnd[2] = {L'x', L'y'};
    EXPECT_EQ(csFormatMessage(L"%1!.3S!%2!.2s!", szNoEnd, szWideNoEnd), L"abcxy");
}

TEST(FormatMessage, SystemTextsAndInsertsLeftAlone)
{
    EXPECT_EQ(FormatMessageW(0x1300, nullptr, ENOENT, nullptr), L"No such file or directory");
    EXPECT_EQ(FormatMessageW(0x700, L"%1!d! %2 50%%%n", 0, nullptr), L"%1!d! %2 50%\r\n");
    EXPECT_EQ(FormatMessageW(0x400, nullptr, 0, nullptr), L"");
    EXPECT_EQ(csFormatMessage(csEscapePercent(L"%1 100% %%").c_str(), L"no"), L"%1 100% %%");
}

TEST(FormatMessage, TheExecutableKnowsItsPath)
{
    EXPECT_EQ(GetModuleFileNameW(10000), std::filesystem::read_symlink("/proc/self/exe").wstring());
    EXPECT_EQ(GetModuleFileNameW(4), GetModuleFileNameW().substr(0, 4));
}

TEST(WideText, FormatGrowsWithItsResultAndMayUseItself)
{
    CTString csText;
    csText.Format(L"%ls-%d-%s", std::wstring(100000, L'\u00E9').c_str(), 7, "x");
    ASSERT_EQ(csText.size(), 100004u);
    csText.erase(0, 99999);
    csText.Format(L"<%ls>", csText.c_str());
    csText.Format(L"%ls%ls", csText.c_str(), csText.c_str());
    EXPECT_EQ(csText, L"<\u00E9-7-x><\u00E9-7-x>");
    csText.Format(L"%s", "\xFF"); // not ASCII: cannot be carried out
    EXPECT_EQ(csText, L"");
}
