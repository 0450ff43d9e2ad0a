// The service main under systemd's notification protocol, with real sockets at the other end.

#include "SystemLog.h"
#include "TestService.h"

#include <cstdlib>
#include <gtest/gtest.h>

TEST(SystemdNotify, ReadyIsSentOnceWhenTheServiceIsUpAndNobodyElseSeesTheSocket)
{
    REQUIRE_PRIVATE_DEVICES();
    const std::pair<std::string, const char*> tCases[] = {{"/run/" + std::string(102, 'n'), "READY=1"},
                                                          {"@" + std::string(106, 'n'), "READY=1"},
                                                          {"/run/nobody/listens", ""}};
    for (const auto& [csName, pszSent] : tCases) {
        SCOPED_TRACE(csName);
        const CLocalReceiver clReceiver(*pszSent != 0 ? csName : "@elsewhere");
        const auto fnPrepare = [&](CTestService& cl) {
            ::setenv("NOTIFY_SOCKET", csName.c_str(), 1);
            cl.m_fnStart = [] {
                CTestService::s_Note(std::getenv("NOTIFY_SOCKET") == nullptr ? "unset " : "set ");
                return true;
            };
        };
        const pid_t nPid = nLaunch(fnPrepare, [] { return bServiceMain(L""); });
        EXPECT_TRUE(bWaitUntil([] { return csReadFile(g_szEvents) == "started unset "; }, 5000));
        EXPECT_EQ(clReceiver.csNext(*pszSent != 0 ? 5000 : 50), pszSent);
        EXPECT_EQ(::getsid(nPid), ::getsid(0)) << "it stays where it was started";
        ::kill(nPid, SIGTERM);
        EXPECT_EQ(nEndOf(nPid, 1000), 0);
        EXPECT_EQ(clReceiver.csNext(50), "");
        EXPECT_EQ(csReadFile(g_szEvents), "started unset stop ended ");
    }
}
