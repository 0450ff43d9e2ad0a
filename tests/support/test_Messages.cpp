#include "support/accesdllres.h"

#include <cerrno>
#include <gtest/gtest.h>

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
