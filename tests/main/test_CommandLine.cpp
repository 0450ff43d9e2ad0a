#include "main/GestionServiceLigneCmd.h"

#include <gtest/gtest.h>
#include <tuple>
#include <wordexp.h>

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
