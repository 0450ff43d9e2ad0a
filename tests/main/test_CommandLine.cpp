#include "main/ErrorMsg.h"
#include "main/GestionServiceLigneCmd.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>
#include <vector>

namespace {
/// An argument vector as the system hands it over, ended by a null; the words are cut at blanks.
class CArguments
{
public:
    explicit CArguments(const std::string& csLine)
    {
        std::string csWord;
        for (std::size_t n = 0, nEnd = 0; nEnd != std::string::npos; n = nEnd + 1) {
            nEnd = csLine.find(' ', n);
            m_tWords.push_back(csLine.substr(n, nEnd - n));
        }
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
    const struct
    {
        const char* pszLine;
        bool bFound;
        const wchar_t* pszValue; ///< "kept" where there is none
    } tCases[] = {
        {"velmo", false, L"kept"},
        {"--service", false, L"kept"}, // the program's own name does not count
        {"velmo --SERVICE", true, L""},
        {"velmo --Service name", true, L"name"},
        {"velmo a --service one --SERVICE two", true, L"one"},
        {"velmo --SERVICE --DEBUG", true, L"--DEBUG"},
        {"velmo --SERVICE Donn\xE9"
         "es",
         true,
         L"Donn\u00e9"
         L"es"}, // one byte a character
        {"velmo --SERVICE Donn\xC3\xA9", true, L"Donn\u00c3\u00a9"},
        {"velmo --SERVICE=name", false, L"kept"},
        {"velmo --SERVICES", false, L"kept"},
        {"velmo --SERV", false, L"kept"},
        {"velmo -SERVICE", false, L"kept"},
        {"velmo ", false, L"kept"},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszLine);
        CArguments cl(st.pszLine);
        CTString csValue(L"kept");
        EXPECT_EQ(bSetOnCmdLine(cl.nCount(), cl.ppsz(), L"--SERVICE"), st.bFound);
        EXPECT_EQ(bGetCmdLineValue(cl.nCount(), cl.ppsz(), L"--SERVICE", &csValue), st.bFound);
        EXPECT_STREQ(csValue.c_str(), st.pszValue);
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
    const struct
    {
        const char* pszSocket;
        bool bService;
    } tCases[] = {{"/run/notify", true}, {"@notify", true}, {"@", false},
                  {"/", false},          {"x", false},      {"", false}};
    CArguments clNone("velmo");
    CArguments clOption("velmo --service");
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszSocket);
        ::setenv("NOTIFY_SOCKET", st.pszSocket, 1);
        EXPECT_EQ(bModeService(clNone.nCount(), clNone.ppsz(), L"--SERVICE"), st.bService);
        EXPECT_TRUE(bModeService(clOption.nCount(), clOption.ppsz(), L"--SERVICE"));
    }
    ::unsetenv("NOTIFY_SOCKET");
    EXPECT_FALSE(bModeService(clNone.nCount(), clNone.ppsz(), L"--SERVICE"));
}

TEST(Console, EveryMessageIsOneLineWithItsInsertsInOrder)
{
    const auto fnShown = [](auto fnShow) {
        ::testing::internal::CaptureStdout();
        errno = EACCES;
        fnShow();
        return ::testing::internal::GetCapturedStdout();
    };
    EXPECT_EQ(fnShown([] { ShowError(0, L"100%s \u20ac"); }), "100%s \xE2\x82\xAC\n");
    EXPECT_EQ(
        fnShown([] { ShowErrorIDS(1, 25305); }),
        "The user \"%1\" that the manager is to run as does not exist on this machine. Create this user or "
        "correct its name in DXConf.ini, then start the manager again.\n")
        << "as it stands";
    EXPECT_TRUE(
        fnShown([] { ShowErrorIDS_Service(0, 25305); }).starts_with("The user \"VelmoManager\" that"));
    EXPECT_TRUE(
        fnShown([] { ShowErrorIDSError(0, 25305); }).starts_with("The user \"Permission denied\" that"));
    EXPECT_TRUE(
        fnShown([] { ShowErrorIDSError_Service(0, 4003); })
            .starts_with("The service \"VelmoManager\" cannot be registered or looked up with the system's "
                         "service manager: Permission denied."));
}
