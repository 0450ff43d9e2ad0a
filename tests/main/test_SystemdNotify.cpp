// The service main under systemd's notification protocol, with real sockets at the other end.

#include "SystemLog.h"
#include "TestService.h"
#include "tools/NotifySocket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {
class SystemdNotify : public ::testing::Test
{
protected:
    void SetUp() override { REQUIRE_PRIVATE_DEVICES(); }
    /// A service that finds the socket's name in its environment; fails its start if it is told so.
    static pid_t nStart(const std::string& csName, bool bUp = true)
    {
        return nLaunch(
            [&](CTestService& cl) {
                ::setenv("NOTIFY_SOCKET", csName.c_str(), 1);
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
    for (const std::string& csName : {std::string("/run/notify"), "/run/" + std::string(102, 'n'),
                                      std::string("@velmo/notify"), "@" + std::string(106, 'n')}) {
        SCOPED_TRACE(csName);
        const CNotifySocket clSocket(csName);
        const pid_t nPid = nStart(csName);
        EXPECT_EQ(clSocket.csNext(), "READY=1");
        EXPECT_EQ(csReadFile(g_szEvents), "started unset ");
        EXPECT_EQ(::getsid(nPid), ::getsid(0)) << "it stays where it was started";
        ::kill(nPid, SIGTERM);
        EXPECT_EQ(nEnd(nPid, 1000), 0);
        EXPECT_EQ(clSocket.csNext(50), "<none>");
        EXPECT_EQ(csReadFile(g_szEvents), "started unset stop ended ");
    }
}

TEST_F(SystemdNotify, AServiceThatFailsToStartNeverReportsReady)
{
    const CSystemLog clLog;
    const CNotifySocket clSocket("@velmo/fails");
    EXPECT_EQ(nEnd(nStart("@velmo/fails", false)), 255);
    EXPECT_EQ(clSocket.csNext(50), "<none>");
    EXPECT_THAT(clLog.csNext(),
                ::testing::StartsWith("<10>The service \"VelmoManager\" could not be started."));
    const pid_t nUnknown = nLaunch(
        [](CTestService& cl) {
            ::setenv("NOTIFY_SOCKET", "@velmo/fails", 1);
            cl.m_csUser = L"velmo-nobody";
        },
        [] { return bServiceMain(L"x"); });
    EXPECT_EQ(nEnd(nUnknown), 255);
    EXPECT_THAT(clLog.csNext(), ::testing::StartsWith("<10>The user \"velmo-nobody\" that"));
    EXPECT_EQ(csReadFile(g_szEvents), "");
}

TEST_F(SystemdNotify, ASocketThatCannotBeReachedIsNoReasonToFail)
{
    for (const std::string& csName : {std::string("/run/nobody-listens"), "/run/" + std::string(103, 'n')}) {
        SCOPED_TRACE(csName);
        const pid_t nPid = nStart(csName);
        EXPECT_TRUE(bWaitUntil([] { return csReadFile(g_szEvents) == "started unset "; }, 5000));
        ::kill(nPid, SIGTERM);
        EXPECT_EQ(nEnd(nPid), 0);
    }
}
