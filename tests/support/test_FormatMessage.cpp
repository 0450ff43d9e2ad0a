#include "support/WinApi.h"
#include "support/XYString.h"

#include <cerrno>
#include <climits>
#include <gtest/gtest.h>

using CCase = std::pair<const wchar_t*, const wchar_t*>; // format, text

namespace {
std::wstring csFormatMessage(const wchar_t* pszFormat, ...)
{
    va_list pArgs;
    va_start(pArgs, pszFormat);
    std::wstring csText = FormatMessageW(FORMAT_MESSAGE_FROM_STRING, pszFormat, 0, &pArgs);
    va_end(pArgs);
    return csText;
}
} // namespace

TEST(FormatMessage, EscapesAndUnknownDirectives)
{
    const CCase tCases[] = {
        {L"plain a\r\nb 100%% sure%!", L"plain a\r\nb 100% sure!"},
        {L"a%nb%rc%td%be%.f", L"a\r\nb\rc\td e.f"},
        {L"%x%y% ", L"xy "},
        {L"end%0 of it", L"end"},
        {L"a%", L"a"},
    };
    for (const auto& [pszFormat, pszWanted] : tCases) {
        EXPECT_EQ(csFormatMessage(pszFormat), pszWanted);
    }
}

TEST(FormatMessage, StringsInAnyOrderAndNumber)
{
    const CCase tCases[] = {
        {L"%2 before %1, %2 again", L"two before one, two again"},
        {L"%1!s!%2!ls!%3!ws!", L"onetwothree"},
        {L"[%1!4s!][%1!-6s!][%3!.2s!][%3!4.1s!]", L"[ one][one   ][th][   t]"},
        {L"%12", L"twelve"},
        {L"%1!s", L"%1!s"}, // ends in the middle of an insert
        {L"%1!*s!%2", L"%1!*s!two"},
        {L"%1!q!", L"%1!q!"},
        {L"%1 %1!d!", L"one %1!d!"}, // contradicts the first
    };
    for (const auto& [pszFormat, pszWanted] : tCases) {
        EXPECT_EQ(csFormatMessage(pszFormat, L"one", L"two", L"three", L"4", L"5", L"6", L"7", L"8", L"9",
                                  L"10", L"11", L"twelve"),
                  pszWanted);
    }
    EXPECT_LE(csFormatMessage(L"[%1!99999999999s!", L"one").size(), 1001u); // widths are bounded
}

TEST(FormatMessage, EachInsertDecidesHowItsArgumentIsRead)
{
    const long long nBig = 0x123456789ALL;
    EXPECT_EQ(csFormatMessage(L"%4 %3!I64d! %2!u! %1!d!", -1, 4000000000u, nBig, L"last"),
              L"last 78187493530 4000000000 -1");
    EXPECT_EQ(csFormatMessage(L"%3", 1L, nullptr, L"three"), L"three"); // the others are walked over
    EXPECT_EQ(csFormatMessage(L"%1!S!|%1!hs!|%2!C!|%2!hc!", "\xE9\x80", 0x80),
              L"\u00E9\u20AC|\u00E9\u20AC|\u20AC|\u20AC");
    EXPECT_EQ(csFormatMessage(L"%1 %2!S!", static_cast<wchar_t*>(nullptr), static_cast<char*>(nullptr)),
              L"(null) (null)");
    const char szNoEnd[3] = {'a', 'b', 'c'};
    const wchar_t szWideNoEnd[2] = {L'x', L'y'};
    EXPECT_EQ(csFormatMessage(L"%1!.3S!%2!.2s!", szNoEnd, szWideNoEnd), L"abcxy"); // no more is read
}

TEST(FormatMessage, IntegersTakeFlagsWidthAndPrecision)
{
    const std::tuple<const wchar_t*, int, const wchar_t*> tCases[] = {
        {L"%1!d! %1!i! %1!ld! %1!I32d!", INT_MIN, L"-2147483648 -2147483648 -2147483648 -2147483648"},
        {L"%1!u! %1!lu!", -1, L"4294967295 4294967295"},
        {L"%1!x! %1!lX! %1!#x! %1!o!", 0xABC, L"abc ABC 0xabc 5274"},
        {L"[%1!5d!] [%1!-5d!]", 42, L"[   42] [42   ]"},
        {L"[%1!05d!]", -42, L"[-0042]"},
        {L"[%1!+.3d!]", 4, L"[+004]"},
        {L"%1!hd! %1!hu!", 0x1FFFF, L"-1 65535"},
    };
    for (const auto& [pszFormat, nValue, pszWanted] : tCases) {
        EXPECT_EQ(csFormatMessage(pszFormat, nValue), pszWanted);
    }
    EXPECT_EQ(csFormatMessage(L"%1!2000000000.2000000000d!", 1).size(), 1000u);
}

TEST(FormatMessage, SystemTextsAndInsertsLeftAlone)
{
    EXPECT_EQ(FormatMessageW(0x1300, nullptr, ENOENT, nullptr), L"No such file or directory");
    EXPECT_EQ(FormatMessageW(0x700, L"%1!d! %2 50%%%n", 0, nullptr), L"%1!d! %2 50%\r\n");
    EXPECT_EQ(FormatMessageW(0x400, nullptr, 0, nullptr), L"");
    EXPECT_EQ(csFormatMessage(csEscapePercent(L"%1 100% %%").c_str(), L"no"), L"%1 100% %%");
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
