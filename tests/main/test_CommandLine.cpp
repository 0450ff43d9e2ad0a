#include "main/ErrorMsg.h"
#include "main/GestionServiceLigneCmd.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>
#include <vector>

namespace {
/// An argument vector as the system hands it over, ended by a null; the words are cut at blanks.
class CArguments
{
public:
    explicit CArguments(const std::string& csLine)
    {
        std::istringstream clLine(csLine);
        m_tWords.assign(std::istream_iterator<std::string>(clLine), {});
        for (std::string& cs : m_tWords) {
            m_tPointers.push_back(cs.data());
        }
        m_tPointers.push_back(nullptr);
    }
    int nCount() const { return static_cast<int>(m_tWords.size()); }
    char** ppsz() { return m_tPointers.data(); }

private:
    std::vector<std::string> m_tWords;
    std::vector<char*> m_tPointers;
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
        {"velmo --SERVICE --DEBUG", true, L"--DEBUG"},
        {"velmo --SERVICE Donn\xE9", true, L"Donn\u00e9"}, // one byte a character
        {"velmo --SERVICE Donn\xC3\xA9", true, L"Donn\u00c3\u00a9"},
        {"velmo --SERVICE=name", false, L"kept"},
        {"velmo --SERVICES", false, L"kept"},
        {"velmo --SERV", false, L"kept"},
        {"velmo -SERVICE", false, L"kept"},
    };
    for (const auto& [pszLine, bFound, pszValue] : tCases) {
        SCOPED_TRACE(pszLine);
        CArguments cl(pszLine);
        CTString csValue(L"kept");
        EXPECT_EQ(bSetOnCmdLine(cl.nCount(), cl.ppsz(), L"--SERVICE"), bFound);
        EXPECT_EQ(bGetCmdLineValue(cl.nCount(), cl.ppsz(), L"--SERVICE", &csValue), bFound);
        EXPECT_STREQ(csValue.c_str(), pszValue);
    }
}

TEST(CommandLine, AnOptionsNameIsComparedAsUTF8WhateverItsLength)
{
    const std::string csLong(3000, 'x');
    CArguments cl("velmo --\xC3\xA9t\xC3\xA9 " + csLong);
    EXPECT_TRUE(bSetOnCmdLine(cl.nCount(), cl.ppsz(), L"--\u00e9T\u00e9"));
    EXPECT_FALSE(bSetOnCmdLine(cl.nCount(), cl.ppsz(), L"--\u00c9t\u00e9"))
        << "only ASCII letters are folded";
    EXPECT_TRUE(bSetOnCmdLine(cl.nCount(), cl.ppsz(), std::wstring(3000, L'X').c_str()));
    EXPECT_FALSE(bSetOnCmdLine(cl.nCount(), cl.ppsz(), std::wstring(2999, L'X').c_str()));
}

TEST(CommandLine, AValidNotificationSocketMakesTheProcessTheService)
{
    const std::pair<const char*, bool> tCases[] = {{"/run/notify", true}, {"@notify", true}, {"@", false},
                                                   {"/", false},          {"x", false},      {"", false}};
    CArguments clNone("velmo");
    CArguments clOption("velmo --service");
    for (const auto& [pszSocket, bService] : tCases) {
        SCOPED_TRACE(pszSocket);
        ::setenv("NOTIFY_SOCKET", pszSocket, 1);
        EXPECT_EQ(bModeService(clNone.nCount(), clNone.ppsz(), L"--SERVICE"), bService);
        EXPECT_TRUE(bModeService(clOption.nCount(), clOption.ppsz(), L"--SERVICE"));
    }
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(bModeService(clNone.nCount(), clNone.ppsz(), L"--SERVICE"));
}

TEST(Console, EveryMessageIsOneLineWithItsInsertsInOrder)
{
    const std::pair<void (*)(), const char*> tCases[] = {
        {[] { ShowError(0, L"100%s \u20ac"); }, "100%s \xE2\x82\xAC\n"},
        {[] { ShowErrorIDS(1, 25305); },
         "The user \"%1\" that the manager is to run as does not exist on this machine. Create this user or "
         "correct its name in DXConf.ini, then start the manager again.\n"}, // as it stands
        {[] { ShowErrorIDS_Service(0, 25305); }, "The user \"VelmoManager\" that"},
        {[] { ShowErrorIDSError(0, 25305); }, "The user \"Permission denied\" that"},
        {[] { ShowErrorIDSError_Service(0, 4003); },
         "The service \"VelmoManager\" cannot be registered or looked up with the system's service manager: "
         "Permission denied."},
    };
    for (const auto& [fnShow, pszShown] : tCases) {
        ::testing::internal::CaptureStdout();
        errno = EACCES;
        fnShow();
        const std::string csShown = ::testing::internal::GetCapturedStdout();
        EXPECT_TRUE(csShown.starts_with(pszShown)) << csShown;
        EXPECT_EQ(csShown.find('\n'), csShown.size() - 1) << csShown;
    }
}
