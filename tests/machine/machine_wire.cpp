// The protocol and the command-line client in a machine with a real systemd: exact bytes and texts for real
// services.

#include "MachineTest.h"

#include <csignal>

namespace {
class Wire : public CMachineTest
{
protected:
    void SetUp() override
    {
        AddServer("run", "DXCS-run", 4911, "[ClusterNode]\nCluster=1\nClusterManager=boss\n");
        AddServer("accent", "DXCS-Données", 4912, "");
        AddServer("blank", "DXCS-Velmo_20261121_083000", 4913, "", "DXCS-Velmo_20261121 083000");
        stRun("systemctl daemon-reload; systemctl enable DXCS-run DXCS-Données DXCS-Velmo_20261121_083000; "
              "systemctl start DXCS-run");
        ASSERT_NO_FATAL_FAILURE(StartManager(""));
        ASSERT_TRUE(m_clTool.bConnect("127.0.0.1", 4999));
        ASSERT_EQ(m_clTool.csLine(), g_szHello);
    }
    /// Of the registered servers.
    static std::string csUnits() { return stRun("ls /lib/systemd/system | grep ^DXCS-").csOutput; }

    CWireClient m_clTool; ///< greeted
};
} // namespace

TEST_F(Wire, EveryStateOfARealServiceHasItsBytesAndAnswersComeWhenTheToolEnds)
{
    AddServer("fail", "DXCS-fail", 4903, "CrashAfter=100\n");
    AddServer("slow", "DXCS-slow", 4904, "StartDelay=60000\n");
    stRun("systemctl daemon-reload; systemctl start DXCS-fail; systemctl start --no-block DXCS-slow");
    ASSERT_TRUE(bWaitUntil([] { return stRun("systemctl is-failed DXCS-fail").nStatus == 0; }, 10'000));
    const std::pair<const char*, const char*> tCases[] = {
        {"STATUS\trun", "STATUS\tRUNNING\r\n"},
        {"STATUS\tfail", "STATUS\tSTOPPED\r\n"},
        {"STATUS\tslow", "STATUS\tSTART_PENDING\r\n"},
        {"STATUS\tmissing", g_szNone},
        {"STATUS\tVelmo_20261121 083000", "STATUS\tSTOPPED\r\n"},
        {"START\trun", "OK\r\n"},
        {"UNINSTALL\tmissing\t0", "ERROR\t11\r\n"},
        {"MODE_UTF8", "OK\r\n"},
        {"STATUS\tDonnées", "STATUS\tSTOPPED\r\n"},
    };
    const auto clStart = CClock::now();
    for (const auto& [pszSent, pszReply] : tCases) {
        EXPECT_EQ(m_clTool.csAsk(pszSent), pszReply) << pszSent;
    }
    EXPECT_LT(CClock::now() - clStart, 2s) << "a pause was not cut short";
    const std::string csInfo = m_clTool.csAsk("INFO");
    EXPECT_TRUE(csInfo.starts_with("YES\t")) << csInfo;
    for (const std::string& csPart : {csOutput("uname -r"), std::string("run\t4911"),
                                      std::string("slow\t4904"), std::string("Données\t4912")}) {
        EXPECT_THAT(csInfo, HasSubstr("\t" + csPart));
    }
}

TEST_F(Wire, ToolsTextNeverBecomesAnOptionOrAPatternOfTheTool)
{
    if (stRun("command -v strace").nStatus != 0) {
        GTEST_SKIP() << "SKIPPED: strace is not installed";
    }
    const std::string csPid = std::to_string(m_pclManager->nPid());
    stRun("strace -f -q -s 400 -e trace=execve -o /run/wire.trace -p " + csPid +
          " >/dev/null 2>&1 & echo $! >/run/strace.pid");
    const std::string csUntraced = "grep -L 'TracerPid:.[1-9]' /proc/" + csPid + "/task/*/status";
    ASSERT_TRUE(
        bWaitUntil([&] { return csOutput(csUntraced).empty(); }, 10'000)); // it takes thread by thread
    for (const char* pszText :
         {"STATUS\tx -Hhost", "START\tx;other", "START\tx;", "UNINSTALL\tru*\t1", "STATUS\tx;-Hhost",
          "STATUS\tx\" \"y", "START\tx|--root=/", "STATUS\trun\x01", "CLUSTERINFO\t[a-z]*"}) {
        EXPECT_TRUE(m_clTool.csAsk(pszText, 20s).starts_with("ERROR\t1")) << pszText;
    }
    stRun(
        "kill $(cat /run/strace.pid); while kill -0 $(cat /run/strace.pid) 2>/dev/null; do sleep 0.05; done");
    const std::string csShow = "execve(\"/bin/systemctl\", [\"/bin/systemctl\", "
                               "\"--property=Description,ExecStart,Type\", \"show\", ";
    EXPECT_EQ(stRun("grep -o 'execve([^]]*]' /run/wire.trace | sort -u").csOutput,
              csShow + "\"DXCS-x\"]\n" + csShow + "\"DXCS-x_-Hhost\"]\n")
        << "a name that became two words is nobody's";
    EXPECT_EQ(stRun("systemctl is-active DXCS-run").csOutput, "active\n");
}

TEST_F(Wire, ThisMachinesServiceManagerTellsMoreThanTheManager)
{
    AddServer("fail", "DXCS-fail", 4903, "");
    AddServer("z1", "DXCS-\\x21z", 4904, "", "DXCS-!z");
    AddServer("z2", "DXCS-x\\x40", 4905, "", "DXCS-x@");
    stRun(
        "cd /lib/systemd/system; sed -i 's/.x21/!/; s/.x40/@/' 'DXCS-\\x21z.service' 'DXCS-x\\x40.service'");
    const std::string csDropIn = "/etc/systemd/system/DXCS-fail.service.d";
    fs::create_directories(csDropIn);
    std::ofstream(csDropIn + "/x.conf") << "[Service]\nExecStartPre=/bin/sh -c \"echo no licence; exit 3\"\n";
    stRun("systemctl daemon-reload");
    Play("states.txt");
    fs::remove_all(csDropIn);
}

TEST_F(Wire, TheClientUninstallsWithAndWithoutTheFiles)
{
    EXPECT_EQ(m_clTool.csAsk("UNINSTALL\tDonnées\t1"), "ERROR\t11\r\n") << "in another encoding";
    Play("uninstall.txt");
    EXPECT_EQ(csUnits(), "");
}

TEST_F(Wire, TheClientRegistersAServerOrTellsWhyItCannotAndLeavesNoPipeBehind)
{
    PutServer("fresh", 4920);
    PutServer("second", 4921);
    Play("register.txt");
    EXPECT_TRUE(bServes(4920));

    const std::string csBefore = csUnits();
    const std::string csVelmoctl = csBuildFolder() + "/velmoctl ";
    const std::string csRegister = csVelmoctl + "register x /opt/velmo/second/dxdemo 4921 ";
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGSTOP), 0);
    EXPECT_EQ(stRun(csRegister + "--timeout 0.2").nStatus, 3);
    EXPECT_EQ(stRun("timeout -s INT 0.2 " + csRegister).nStatus, 124);
    EXPECT_EQ(csOutput("ls /tmp | grep __pipe_velmomanager_"), "__pipe_velmomanager__");
    EXPECT_EQ(stRun(csVelmoctl + "list --timeout 0.3").nStatus, 3) << "it is as silent over TCP";
    EXPECT_EQ(csUnits(), csBefore);
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGCONT), 0);
    EXPECT_TRUE(bWaitUntil([&] { return csOutput(csVelmoctl + "status x") == "running"; }, 20'000))
        << "it was at it";
    m_clTool.Reset();
    EXPECT_EQ(m_pclManager->nStop(), 0);
    EXPECT_EQ(csOutput(csRegister), "velmoctl: no manager runs on this machine");
}
