#include "support/accesdllres.h"
#include "support/WinApi.h"

#include <cerrno>
#include <climits>
#include <gtest/gtest.h>

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

TEST(FormatMessage, EscapesUnknownDirectivesAndStringsInAnyOrderAndNumber)
{
    const std::pair<const wchar_t*, const wchar_t*> tCases[] = {
        {L"plain a\r\nb 100%% sure%!", L"plain a\r\nb 100% sure!"},
        {L"a%nb%rc%td%be%.f", L"a\r\nb\rc\td e.f"},
        {L"%x%y% ", L"xy "},
        {L"end%0 of it", L"end"},
        {L"a%", L"a"},
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

namespace {
std::wstring csLoad(unsigned int nId)
{
    CTString csText = std::wstring(L"before");
    const bool bLoaded = DLLRES_bLoadString(g_stMyModule, nId, &csText);
    EXPECT_EQ(bLoaded, !csText.empty());
    return csText;
}
} // namespace

TEST(Messages, EveryMessageThatIsUsedExistsAndTakesItsInserts)
{
    const std::tuple<unsigned int, const wchar_t*, const wchar_t*> tCases[] = {
        {3857, nullptr, nullptr}, {3859, nullptr, nullptr},     {4003, L"refused", L"svc"},
        {4004, nullptr, nullptr}, {4010, L"name", L"/a/prog"},  {4012, L"svc", nullptr},
        {4139, nullptr, nullptr}, {25304, nullptr, nullptr},    {25305, L"joe", nullptr},
        {25306, L"joe", nullptr}, {25630, L"refused", nullptr}, {25631, L"svc", L"/a/prog"},
    };
    CTString csText;
    for (const auto& [nId, pszFirst, pszSecond] : tCases) {
        SCOPED_TRACE(nId);
        ASSERT_TRUE(DLLRES_bFormatMessage(&g_stMyModule, nId, &csText, pszFirst, pszSecond, L"/b/other"));
        for (const wchar_t* psz : {pszFirst, pszSecond}) {
            EXPECT_TRUE(psz == nullptr || csText.find(psz) != csText.npos) << testing::PrintToString(csText);
        }
        EXPECT_EQ(csText.find(L'%'), csText.npos) << "would be read as a printf format";
    }
    EXPECT_TRUE(DLLRES_bFormatMessage(&g_stMyModule, 4009, &csText, L"name", 4900u, L"neighbour"));
    EXPECT_TRUE(csText.find(L"port 4900 is already used by the server \"neighbour\"") != csText.npos);
    for (const unsigned int nId : {0u, 1u, 256u, 257u, 65534u}) {
        EXPECT_EQ(csLoad(nId), L"") << nId;
    }
    EXPECT_EQ(csLoad(65535), L"ZANTOR RES BLOC UTF16 STOP");
    EXPECT_EQ(csLoad(0x70000 + 4139), csLoad(4139)) << "only the low 16 bits count";
}

TEST(Messages, AnErrorDumpsWhatTheMaskAsksFor)
{
    CXError clError;
    DLLRES_SetUserError(&clError, g_stMyModule, 1, EAGAIN);
    clError.AddDebugMessage(L"first");
    clError.AddDebugMessage(L"second");
    EXPECT_EQ(clError.StringDump(0x80000FFF),
              csLoad(3857) +
                  L"\r\nSystem error 11: Resource temporarily unavailable\r\nDetail: first\r\nDetail: second"
                  L"\r\nModule VelmoManager, message 3857");
    EXPECT_EQ(clError.StringDump(CXError::INFO_SYSTEM), L"System error 11: Resource temporarily unavailable");
    errno = ENOENT;
    EXPECT_FALSE(bFail(&clError, L"open", L"/x"));
    EXPECT_EQ(clError.StringDump(0xF), L"open /x\r\nSystem error 2: No such file or directory");
    EXPECT_EQ(errno, ENOENT);
}
