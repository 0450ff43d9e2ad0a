#include "main/GestionServiceLigneCmd.h"
#include "main/ServiceUnix.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <tuple>
#include <wordexp.h>

namespace {
/// Place of a virtual operation in its class's table, from 1 on; a pointer to it holds its offset there.
template <class TOperation>
std::size_t nSlot(TOperation pfnOperation)
{
    std::size_t nOffset = 0;
    std::memcpy(&nOffset, &pfnOperation, sizeof nOffset);
    return nOffset / sizeof(void*) + 1;
}
} // namespace

TEST(Service, OperationsHaveTheSlotsThatServicesAreBuiltWith)
{
    const std::array tSlots = {nSlot(&CServiceImp::MainLoop), nSlot(&CServiceImp::pclGetLogger),
                               nSlot(&CServiceImp::bStart), nSlot(&CServiceImp::Stop),
                               nSlot(&CServiceImp::vbLogStartOK)};
    EXPECT_EQ(tSlots, (std::array<std::size_t, 5>{1, 2, 3, 4, 8}));
}

TEST(CommandLine, AnOptionIsAWholeArgumentInAnyCaseAtAnyPlace)
{
    const std::tuple<const char*, bool, const wchar_t*> tCases[] = {
        // the value is "kept" where there is none
        {"velmo", false, L"kept"},
        {"velmo --SERVICE", true, L""},
        {"velmo --Service name", true, L"name"},
        {"velmo a --service one --SERVICE two", true, L"one"},
        {"velmo --SERVICE Donn\xE9", true, L"Donn\u00e9"}, // one byte a character
        {"velmo --SERVICE=name", false, L"kept"},
        {"velmo --SERV", false, L"kept"},
        {"velmo -SERVICE", false, L"kept"},
    };
    for (const auto& [pszLine, bFound, pszValue] : tCases) {
        SCOPED_TRACE(pszLine);
        wordexp_t stWords; // an argument vector as the system hands it over
        ASSERT_EQ(::wordexp(pszLine, &stWords, WRDE_NOCMD), 0);
        const int nCount = static_cast<int>(stWords.we_wordc);
        CTString csValue(L"kept");
        EXPECT_EQ(bSetOnCmdLine(nCount, stWords.we_wordv, L"--SERVICE"), bFound);
        EXPECT_EQ(bGetCmdLineValue(nCount, stWords.we_wordv, L"--SERVICE", &csValue), bFound);
        EXPECT_STREQ(csValue.c_str(), pszValue);
        ::wordfree(&stWords);
    }
}
