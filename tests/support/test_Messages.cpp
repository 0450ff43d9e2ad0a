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

/// A loader that knows one id and answers with as much of a long text as fits.
int nLoadLong(unsigned int nId, wchar_t* pszBuffer, int nSize)
{
    if (nId != 4139) {
        return 0;
    }
    const std::size_t n = std::wstring(3000, L'o').copy(pszBuffer, static_cast<std::size_t>(nSize) - 1);
    pszBuffer[n] = L'\0';
    return static_cast<int>(n);
}

int nBoast(unsigned int, wchar_t* pszBuffer, int nSize)
{
    std::wmemset(pszBuffer, L'x', static_cast<std::size_t>(nSize));
    return 1 << 30;
}

struct Messages : testing::Test
{
    ~Messages() override { DLLRES_SetLoadStringZTM(nullptr); }
};
} // namespace

TEST_F(Messages, MarkersLowBitsAndUnknownIds)
{
    EXPECT_EQ(csLoad(257), L"");
    EXPECT_EQ(csLoad(65535), L"ZANTOR RES BLOC UTF16 STOP");
    EXPECT_EQ(csLoad(0x70000 + 4139), csLoad(4139));
    for (const unsigned int nId : {0u, 256u, 258u, 4005u, 25628u, 65534u}) {
        EXPECT_EQ(csLoad(nId), L"") << nId;
    }
}

TEST_F(Messages, EveryMessageThatIsUsedExistsAndTakesItsInserts)
{
    const std::tuple<unsigned int, const wchar_t*, const wchar_t*> tCases[] = {
        {3857, nullptr, nullptr},   {3858, nullptr, nullptr}, {3859, nullptr, nullptr},
        {4003, L"refused", L"svc"}, {4004, nullptr, nullptr}, {4010, L"name", L"/a/prog"},
        {4012, L"svc", nullptr},    {4139, nullptr, nullptr}, {25304, nullptr, nullptr},
        {25305, L"joe", nullptr},   {25306, L"joe", nullptr},
    };
    for (const auto& [nId, pszFirst, pszSecond] : tCases) {
        SCOPED_TRACE(nId);
        CTString csText;
        ASSERT_TRUE(DLLRES_bFormatMessage(&g_stMyModule, nId, &csText, pszFirst, pszSecond, L"/b/other"));
        for (const wchar_t* psz : {pszFirst, pszSecond}) {
            EXPECT_TRUE(psz == nullptr || csText.find(psz) != csText.npos) << testing::PrintToString(csText);
        }
        EXPECT_EQ(csText.find(L'%'), csText.npos) << "would be read as a printf format";
    }
    CTString csText;
    EXPECT_TRUE(DLLRES_bFormatMessage(&g_stMyModule, 4009, &csText, L"name", 4900u, L"neighbour"));
    EXPECT_NE(csText.find(L"port 4900 is"), csText.npos);
    EXPECT_NE(csText.find(L"\"neighbour\""), csText.npos);
    EXPECT_TRUE(DLLRES_bFormatMessage(&g_stMyModule, 25627, &csText, 4999u));
    EXPECT_NE(csText.find(L"4999"), csText.npos);
    EXPECT_FALSE(DLLRES_bFormatMessage(&g_stMyModule, 1, &csText));
    EXPECT_EQ(csText, L"");
}

TEST_F(Messages, ABufferGetsWhatFits)
{
    const std::wstring csAll = csLoad(4139);
    const int nAll = static_cast<int>(csAll.size());
    const std::tuple<unsigned int, int, int> tCases[] = {
        {4139, nAll + 1, nAll}, {4139, nAll, nAll - 1}, {4139, 5, 4}, {4139, 1, 0}, {4139, 0, 0}, {1, 50, 0}};
    for (const auto& [nId, nSize, nWanted] : tCases) {
        std::wstring csBuffer(static_cast<std::size_t>(nSize), L'#');
        ASSERT_EQ(DLLRES_nLoadString(g_stMyModule, nId, csBuffer.data(), nSize), nWanted) << nSize;
        if (nSize > 0) {
            EXPECT_EQ(csBuffer.c_str(), csAll.substr(0, static_cast<std::size_t>(nWanted)));
        }
    }
}

TEST_F(Messages, AnOutsideLoaderIsAskedFirst)
{
    const std::wstring csOwn = csLoad(4012);
    EXPECT_EQ(CommandeComposante(2, &nLoadLong), 0);
    EXPECT_EQ(csLoad(4139), std::wstring(3000, L'o'));
    EXPECT_EQ(csLoad(4012), csOwn);
    wchar_t szBuffer[8];
    EXPECT_EQ(DLLRES_nLoadString(g_stMyModule, 4139, szBuffer, 8), 7);
    EXPECT_STREQ(szBuffer, L"ooooooo");
    DLLRES_SetLoadStringZTM(&nBoast); // promises more than the buffer holds
    EXPECT_EQ(DLLRES_nLoadString(g_stMyModule, 4139, szBuffer, 8), 7);
    EXPECT_STREQ(szBuffer, L"xxxxxxx");
    EXPECT_LE(csLoad(4139).size(), 65536u);
}

TEST_F(Messages, TheRuntimeLoadsStringsAndFindsResources)
{
    wchar_t szBuffer[8] = {};
    STLoadString stLoad{4139, szBuffer, 8, -1};
    EXPECT_EQ(CommandeComposante(3, &stLoad), 7);
    EXPECT_EQ(stLoad.nCount, 7);
    EXPECT_EQ(csLoad(4139).substr(0, 7), szBuffer);
    STRessourceModule stResource{};
    EXPECT_EQ(CommandeComposante(4, 65535u, &stResource), 1);
    EXPECT_EQ(stResource.nLength, 26u);
    EXPECT_EQ(stResource.nCharWidth, 2u);
    EXPECT_EQ(CommandeComposante(4, 257u, &stResource), 0);
    EXPECT_EQ(CommandeComposante(1), 0);
    EXPECT_EQ(CommandeComposante(99), 0);
}

TEST_F(Messages, AnErrorDumpsWhatTheMaskAsksFor)
{
    CXError clError;
    EXPECT_FALSE(clError.bIsSet());
    DLLRES_SetUserError(&clError, g_stMyModule, 1, EAGAIN);
    clError.AddDebugMessage(L"first");
    clError.AddDebugMessage(L"second");
    EXPECT_EQ(clError.nGetUserError(), 3857u);
    EXPECT_EQ(clError.StringDump(0x80000FFF),
              csLoad(3857) +
                  L"\r\nSystem error 11: Resource temporarily unavailable\r\nDetail: first\r\nDetail: second"
                  L"\r\nModule VelmoManager, message 3857");
    EXPECT_EQ(clError.StringDump(CXError::INFO_SYSTEM), L"System error 11: Resource temporarily unavailable");
    errno = ENOENT;
    EXPECT_FALSE(bFail(&clError, L"open", L"/x"));
    EXPECT_EQ(clError.StringDump(0xF), L"open /x\r\nSystem error 2: No such file or directory");
    EXPECT_FALSE(bFail(nullptr, L"open", L"/x"));
    EXPECT_EQ(errno, ENOENT);
}
