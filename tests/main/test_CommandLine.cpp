#include "main/GestionServiceLigneCmd.h"

#include <gtest/gtest.h>
#include <tuple>
#include <wordexp.h>

namespace {
/// A line as the system hands it over, cut at blanks.
class CArguments
{
public:
    explicit CArguments(const char* pszLine) { ::wordexp(pszLine, &m_stWords, WRDE_NOCMD); }
    CArguments(const CArguments&) = delete;
    CArguments& operator=(const CArguments&) = delete;
    ~CArguments() { ::wordfree(&m_stWords); }

    int nCount() const { return static_cast<int>(m_stWords.we_wordc); }
    char** ppsz() const { return m_stWords.we_wordv; }

private:
    wordexp_t m_stWords;
};
} // namespace

TEST(CommandLine, AnOptionIsAWholeArgumentInAnyCaseAtAnyPlace)
{
    const std::tuple<const char*, bool, const wchar_t*> tCases[] = {
        // the value is "kept" where there is none
        {"velmo", false, L"kept"},
        {"--service", false, L"kept"}, // the program's own name does not count
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
        const CArguments cl(pszLine);
        CTString csValue(L"kept");
        EXPECT_EQ(bSetOnCmdLine(cl.nCount(), cl.ppsz(), L"--SERVICE"), bFound);
        EXPECT_EQ(bGetCmdLineValue(cl.nCount(), cl.ppsz(), L"--SERVICE", &csValue), bFound);
        EXPECT_STREQ(csValue.c_str(), pszValue);
    }
}
