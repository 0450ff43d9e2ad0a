// The service main under systemd's notification protocol, with real sockets at the other end.

#include "SystemLog.h"
#include "TestService.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ::testing::StartsWith;

namespace {
class SystemdNotify : public ::testing::Test
{
protected:
    void SetUp() override { REQUIRE_PRIVATE_DEVICES(); }
    /// A service that finds the socket's name in its environment.
    static pid_t nStart(const std::string& csName, bool bUp = true, const wchar_t* pszUser = L"")
    {
        return nLaunch(
            [&](CTestService& cl) {
                ::setenv("NOTIFY_SOCKET", csName.c_str(), 1);
                cl.m_csUser = pszUser;
                cl.m_fnStart = [bUp] {
                    CTestService::s_Note(std::getenv("NOTIFY_SOCKET") == nullptr ? "unset " : "set ");
                    return bUp;
                };
            },
            [] { return bServiceMain(L""); });
    }
};
} // namespace

TEST_F(SystemdNotify, ReadyIsSentOnceWhenTheServiceIsUpAndNobodyElseSeesTheSocket)
{
    for (const std::string& csName : {"/run/" + std::string(102, 'n'), "@" + std::string(106, 'n')}) {
        SCOPED_TRACE(csName);
        const CLocalReceiver clSocket(csName);
        const pid_t nPid = nStart(csName);
        EXPECT_EQ(clSocket.csNext(), "READY=1");
        EXPECT_EQ(csReadFile(g_szEvents), "started unset ");
        EXPECT_EQ(::getsid(nPid), ::getsid(0)) << "it stays where it was started";
        ::kill(nPid, SIGTERM);
        EXPECT_EQ(nEndOf(nPid, 1000), 0);
        EXPECT_EQ(clSocket.csNext(50), "");
        EXPECT_EQ(csReadFile(g_szEvents), "started unset stop ended ");
    }
}

TEST_F(SystemdNotify, AServiceThatFailsToStartNeverReportsReady)
{
    const CSystemLog clLog;
    const CLocalReceiver clSocket("@velmo/fails");
    EXPECT_EQ(nEndOf(nStart("@velmo/fails", false)), 255);
    EXPECT_THAT(clLog.csNext(), StartsWith("<10>The service \"VelmoManager\" could not be started."));
    EXPECT_EQ(nEndOf(nStart("@velmo/fails", true, L"velmo-nobody")), 255);
    EXPECT_THAT(clLog.csNext(), StartsWith("<10>The user \"velmo-nobody\" that"));
    EXPECT_EQ(csReadFile(g_szEvents), "");
    EXPECT_EQ(clSocket.csNext(50), "");
}

TEST_F(SystemdNotify, ASocketThatCannotBeReachedIsNoReasonToFail)
{
    const pid_t nPid = nStart("/run/nobody-listens");
    EXPECT_TRUE(bWaitUntil([] { return csReadFile(g_szEvents) == "started unset "; }, 5000));
    ::kill(nPid, SIGTERM);
    EXPECT_EQ(nEndOf(nPid), 0);
}
