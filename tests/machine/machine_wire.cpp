// The protocol in a machine with a real systemd: exact bytes for real services, over both address families.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <gtest/gtest.h>
#include <memory>

namespace {
constexpr unsigned short s_wPort = 4999;

class Wire : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        AddServer("run", "DXCS-run", 4901, "");
        AddServer("stop", "DXCS-stop", 4902, "");
        AddServer("fail", "DXCS-fail", 4903, "CrashAfter=100\n");
        AddServer("slow", "DXCS-slow", 4904, "StartDelay=60000\n");
        AddServer("cluster", "DXCS-cluster", 4905, "[ClusterNode]\nCluster=1\nClusterManager=boss\n");
        AddServer("accent",
                  "DXCS-Donn\xC3\xA9"
                  "es",
                  4906, "");
        AddServer("blank", "DXCS-Velmo_20261121_083000", 4907, "", "DXCS-Velmo_20261121 083000");
        stRun("systemctl daemon-reload");
        stRun("systemctl start DXCS-run DXCS-Donn\xC3\xA9"
              "es DXCS-fail; systemctl start --no-block DXCS-slow");
        EXPECT_TRUE(bWaitUntil([] { return stRun("systemctl is-failed DXCS-fail").nStatus == 0; }, 10'000));
        s_pclManager = std::make_unique<CManagerProcess>();
        ASSERT_TRUE(s_pclManager->bAnswers());
    }
    static void TearDownTestSuite()
    {
        EXPECT_EQ(s_pclManager->nStop(), 0);
        s_pclManager.reset();
        stRun(
            "systemctl stop 'DXCS-*'; rm -rf /lib/systemd/system/DXCS-* /opt/velmo; systemctl daemon-reload");
    }
    static std::unique_ptr<CWireClient> pclOpen(const char* pszAddress = "127.0.0.1")
    {
        auto pclTool = std::make_unique<CWireClient>(pszAddress, s_wPort);
        EXPECT_EQ(pclTool->csLine(), "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
        return pclTool;
    }
    static std::unique_ptr<CManagerProcess> s_pclManager;
};
std::unique_ptr<CManagerProcess> Wire::s_pclManager;

constexpr std::chrono::seconds s_clSlow{20};
} // namespace

TEST_F(Wire, EveryCommandGivesItsExactBytesForEveryStateOfAService)
{
    const struct
    {
        const char* pszSent;
        const char* pszReply;
    } tCases[] = {
        {"STATUS\trun", "STATUS\tRUNNING\r\n"},
        {"Status\tstop", "STATUS\tSTOPPED\r\n"},
        {"STATUS\tfail", "STATUS\tSTOPPED\r\n"},
        {"STATUS\tslow", "STATUS\tSTART_PENDING\r\n"},
        {"STATUS\tmissing", "ERROR\t1No such file or directory\r\n"},
        {"STATUS\tDonn\xE9"
         "es",
         "STATUS\tRUNNING\r\n"},
        {"STATUS\tVelmo_20261121 083000", "STATUS\tSTOPPED\r\n"},
        {"START\trun", "OK\r\n"},
        {"START\tmissing", "ERROR\t1No such file or directory\r\n"},
        {"CLUSTERINFO\tcluster", "YES\t1\tboss\r\n"},
        {"CLUSTERINFO\trun", "YES\t0\t\r\n"},
        {"CLUSTERINFO\tmissing", "ERROR\t1No such file or directory\r\n"},
        {"UNINSTALL\tmissing\t0", "ERROR\t11\r\n"},
        {"STOP\trun", "ERROR\t8\r\n"},
        {"", "ERROR\t8\r\n"},
        {"MODE_UTF8", "OK\r\n"},
        {"STATUS\tDonn\xC3\xA9"
         "es",
         "STATUS\tRUNNING\r\n"},
        {"STATUS\tDonn\xE9"
         "es",
         "ERROR\t1No such file or directory\r\n"},
    };
    for (const char* pszAddress : {"127.0.0.1", "::1"}) {
        const auto pclTool = pclOpen(pszAddress);
        for (const auto& st : tCases) {
            SCOPED_TRACE(st.pszSent);
            EXPECT_EQ(pclTool->csAsk(st.pszSent), st.pszReply);
        }
        EXPECT_TRUE(pclTool->bSend("QUIT\r\n"));
        EXPECT_TRUE(pclTool->bClosed());
    }
}

TEST_F(Wire, StartAndUninstallActOnTheRealService)
{
    const auto pclTool = pclOpen();
    EXPECT_EQ(pclTool->csAsk("START\tstop", s_clSlow), "OK\r\n");
    EXPECT_EQ(stRun("systemctl is-active DXCS-stop").csOutput, "active\n");
    EXPECT_EQ(CWireClient("127.0.0.1", 4902).bConnected(), true);
    EXPECT_EQ(pclTool->csAsk("UNINSTALL\tstop\t1", s_clSlow), "ERROR\t12\t\r\n");
    EXPECT_EQ(stRun("ls /opt/velmo/stop").nStatus, 2);
    EXPECT_EQ(pclTool->csAsk("STATUS\tstop"), "STATUS\tSTOPPED\r\n");
    EXPECT_EQ(pclTool->csAsk("START\tstop", s_clSlow).substr(0, 7), "ERROR\t2") << "its program is gone";
    EXPECT_EQ(pclTool->csAsk("UNINSTALL\tstop\t0", s_clSlow), "OK\r\n");
    EXPECT_EQ(pclTool->csAsk("STATUS\tstop"), "ERROR\t1No such file or directory\r\n");
    EXPECT_EQ(stRun("ls /lib/systemd/system/DXCS-stop.service").nStatus, 2);
}

TEST_F(Wire, InfoNamesTheMachineAndEveryServerWithItsPort)
{
    const auto pclTool = pclOpen();
    EXPECT_EQ(pclTool->csAsk("MODE_UTF8"), "OK\r\n");
    const std::string csReply = pclTool->csAsk("INFO");
    const std::string csKernel = stRun("uname -r | tr -d '\\n'").csOutput;
    EXPECT_TRUE(csReply.starts_with("YES\t")) << csReply;
    EXPECT_NE(csReply.find("\t" + csKernel + "\t"), std::string::npos) << csReply;
    for (const char* pszServer : {"\trun\t4901", "\tfail\t4903", "\tslow\t4904",
                                  "\tDonn\xC3\xA9"
                                  "es\t4906"}) {
        EXPECT_NE(csReply.find(pszServer), std::string::npos) << pszServer << " in " << csReply;
    }
}

TEST_F(Wire, ToolsTextNeverBecomesAnOptionAPatternOrASecondWordOfTheTool)
{
    if (stRun("command -v strace").nStatus != 0) {
        GTEST_SKIP() << "SKIPPED: strace is not installed";
    }
    const std::string csPid = std::to_string(s_pclManager->nPid());
    stRun("strace -f -q -s 400 -e trace=execve -o /run/wire.trace -p " + csPid +
          " >/dev/null 2>&1 & echo $! >/run/strace.pid");
    ASSERT_TRUE(bWaitUntil(
        [&] { return stRun("grep -q 'TracerPid:.[1-9]' /proc/" + csPid + "/status").nStatus == 0; }, 10'000));
    const auto pclTool = pclOpen();
    for (const char* pszText :
         {"STATUS\tx -Hhost", "START\tx other", "UNINSTALL\tru*\t1", "STATUS\tx;-Hhost", "STATUS\tx\" \"y",
          "START\tx|--root=/", "STATUS\trun\x01", "CLUSTERINFO\t[a-z]*"}) {
        EXPECT_TRUE(pclTool->csAsk(pszText, s_clSlow).starts_with("ERROR\t1")) << pszText;
    }
    stRun(
        "kill $(cat /run/strace.pid); while kill -0 $(cat /run/strace.pid) 2>/dev/null; do sleep 0.05; done");
    const std::string csTrace = stRun("grep -o 'execve([^]]*]' /run/wire.trace | sort -u").csOutput;
    EXPECT_EQ(csTrace,
              "execve(\"/bin/systemctl\", [\"/bin/systemctl\", \"--property=Description,ExecStart,Type\", "
              "\"show\", \"DXCS-x_-Hhost\"]\n"
              "execve(\"/bin/systemctl\", [\"/bin/systemctl\", \"--property=Description,ExecStart,Type\", "
              "\"show\", \"DXCS-x_other\"]\n");
    EXPECT_EQ(stRun("systemctl is-active DXCS-run").csOutput, "active\n");
}

TEST_F(Wire, AnswersComeWhenTheToolEnds)
{
    const auto pclTool = pclOpen();
    const auto clStart = std::chrono::steady_clock::now();
    for (int n = 0; n < 20; ++n) {
        EXPECT_EQ(pclTool->csAsk("STATUS\trun"), "STATUS\tRUNNING\r\n");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(4))
        << "a pause was not cut short";
}
