// The protocol and the command-line client in a machine with a real systemd: exact bytes and texts for real
// services.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <csignal>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>

using ::testing::AllOf;
using ::testing::HasSubstr;

namespace {
constexpr std::chrono::seconds s_clSlow{20};

class Wire : public ::testing::Test
{
protected:
    void SetUp() override
    {
        AddServer("run", "DXCS-run", 4911, "[ClusterNode]\nCluster=1\nClusterManager=boss\n");
        AddServer("accent", "DXCS-Données", 4912, "");
        AddServer("blank", "DXCS-Velmo_20261121_083000", 4913, "", "DXCS-Velmo_20261121 083000");
        stRun("systemctl daemon-reload; systemctl enable DXCS-run DXCS-Données DXCS-Velmo_20261121_083000; "
              "systemctl start DXCS-run");
        m_pclManager = std::make_unique<CManagerProcess>();
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(bWaitUntil([] { return std::filesystem::exists("/tmp/__pipe_velmomanager__"); }, 5000));
        ASSERT_TRUE(m_clTool.bConnect("127.0.0.1", 4999));
        ASSERT_EQ(m_clTool.csLine(), "HELLO FROM SERVEUR SETUP 24.0.6.0\r\n");
    }
    void TearDown() override
    {
        m_pclManager.reset();
        RemoveServices();
    }
    static STCommandResult stClient(const std::string& csArguments)
    {
        return stRun(csBuildFolder() + "/velmoctl " + csArguments);
    }
    /// Of the registered servers.
    static std::string csUnits() { return stRun("ls /lib/systemd/system | grep ^DXCS-").csOutput; }

    std::unique_ptr<CManagerProcess> m_pclManager;
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
        {"STATUS\tmissing", "ERROR\t1No such file or directory\r\n"},
        {"STATUS\tVelmo_20261121 083000", "STATUS\tSTOPPED\r\n"},
        {"START\trun", "OK\r\n"},
        {"UNINSTALL\tmissing\t0", "ERROR\t11\r\n"},
        {"MODE_UTF8", "OK\r\n"},
        {"STATUS\tDonnées", "STATUS\tSTOPPED\r\n"},
    };
    const auto clStart = std::chrono::steady_clock::now();
    for (const auto& [pszSent, pszReply] : tCases) {
        EXPECT_EQ(m_clTool.csAsk(pszSent), pszReply) << pszSent;
    }
    EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(2))
        << "a pause was not cut short";
    const std::string csInfo = m_clTool.csAsk("INFO");
    EXPECT_TRUE(csInfo.starts_with("YES\t")) << csInfo;
    for (const std::string& csPart : {stRun("uname -r | tr -d '\\n'").csOutput, std::string("run\t4911"),
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
    ASSERT_TRUE(bWaitUntil(
        [&] { return stRun("grep -q 'TracerPid:.[1-9]' /proc/" + csPid + "/status").nStatus == 0; }, 10'000));
    for (const char* pszText :
         {"STATUS\tx -Hhost", "START\tx;other", "START\tx;", "UNINSTALL\tru*\t1", "STATUS\tx;-Hhost",
          "STATUS\tx\" \"y", "START\tx|--root=/", "STATUS\trun\x01", "CLUSTERINFO\t[a-z]*"}) {
        EXPECT_TRUE(m_clTool.csAsk(pszText, s_clSlow).starts_with("ERROR\t1")) << pszText;
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
    const std::string csDropIn = "/etc/systemd/system/DXCS-fail.service.d";
    stRun(
        "cd /lib/systemd/system; sed -i 's/.x21/!/; s/.x40/@/' 'DXCS-\\x21z.service' 'DXCS-x\\x40.service'");
    stRun("mkdir -p " + csDropIn +
          "; printf '[Service]\nExecStartPre=/bin/sh -c \"echo no licence; exit 3\"\n' >" + csDropIn +
          "/x.conf; systemctl daemon-reload");
    const std::tuple<const char*, int, const char*> tCases[] = {
        {"status fail", 3, "stopped\n"},
        {"start fail", 1,
         "velmoctl: the server \"fail\" on this machine could not be started (Operation canceled); "
         "\"systemctl status DXCS-fail\" tells why, its last line: no licence\n"},
        {"status fail", 1, "failed\n"},
        {"status run", 0, "running\n"},
        {"status fail run 'V*'", 3,
         "NAME                   STATE\nfail                   failed\nrun                    running\n"
         "Velmo_20261121 083000  stopped\n"},
        {"list --state failed", 0, "NAME  PORT  STATE\nfail  4903  failed\n"},
        {"list --columns name,folder,log -l fail run", 0,
         "NAME  FOLDER           LOG\nfail  /opt/velmo/fail  no licence\nrun   /opt/velmo/run\n"},
        {"cluster run", 0, "\"run\" belongs to the cluster managed by \"boss\"\n"},
        {"start Données", 0, "\"Données\" is started\n"},
        {"list Données run 'V*'", 0,
         "NAME                   PORT  STATE\nDonnées                4912  running\nrun                    "
         "4911  "
         "running\nVelmo_20261121 083000  4913  stopped\n"},
        {"stop run nobody", 1,
         "\"run\" is stopped\nvelmoctl: there is no server \"nobody\" on this machine; \"velmoctl list\" "
         "shows those there are\n"},
        {"status run", 3, "stopped\n"},
        {"restart run", 0, "\"run\" is restarted\n"},
        {"restart fail", 1,
         "velmoctl: \"restart\" of the server \"fail\" on this machine failed: Job for DXCS-fail"},
        {"stop 'r*'", 1, "velmoctl: there is no server \"r*\""},
        {"restart '!z' 'x@'", 0, "\"!z\" is restarted\n\"x@\" is restarted\n"},
        {"list --columns name,folder,state -l '!z' 'x@'", 0,
         "NAME  FOLDER         STATE\n!z    /opt/velmo/z1  running\nx@    /opt/velmo/z2  running\n"},
        {"stop '!z' 'x@'", 0, "\"!z\" is stopped\n\"x@\" is stopped\n"},
        {"--host 10.77.0.9 stop 'a b'", 1,
         "velmoctl: managers cannot stop servers, only the service manager of 10.77.0.9 can: ssh "
         "root@10.77.0.9 "
         "systemctl stop DXCS-a_b\n"},
    };
    for (const auto& [pszArguments, nStatus, pszShown] : tCases) {
        SCOPED_TRACE(pszArguments);
        const STCommandResult stResult = stClient(pszArguments);
        EXPECT_EQ(stResult.nStatus, nStatus);
        EXPECT_TRUE(stResult.csOutput.starts_with(pszShown)) << stResult.csOutput;
    }
    EXPECT_THAT(
        stRun("setpriv --reuid=65534 --clear-groups " + csBuildFolder() + "/velmoctl stop run").csOutput,
        HasSubstr("only root can stop a server: sudo velmoctl stop run"));
    EXPECT_THAT(stClient("list --json -l run").csOutput,
                ::testing::ContainsRegex(
                    "\"state\":\"running\",\"pid\":[0-9]+,\"since\":\"20[^\"]*\",\"folder\":\"/opt/"
                    "velmo/run\",\"log\":[^,]*,\"error\":null"));
    stRun("rm -r " + csDropIn);
}

TEST_F(Wire, TheClientUninstallsWithAndWithoutTheFiles)
{
    EXPECT_EQ(stClient("uninstall 'Velmo_20261121 083000' --yes").csOutput,
              "\"Velmo_20261121 083000\" is uninstalled, its files are kept\n");
    EXPECT_TRUE(std::filesystem::exists("/opt/velmo/blank/dxdemo"));
    EXPECT_THAT(stClient("uninstall run --delete-files --dry-run").csOutput,
                HasSubstr("delete /opt/velmo/run, the folder of its program, with all databases in it"));
    EXPECT_EQ(stClient("status run").csOutput, "running\n");
    EXPECT_EQ(m_clTool.csAsk("UNINSTALL\tDonnées\t1", s_clSlow), "ERROR\t11\r\n") << "in another encoding";
    EXPECT_EQ(stClient("uninstall run --delete-files --yes").csOutput,
              "\"run\" is uninstalled, its files are deleted\n");
    EXPECT_FALSE(std::filesystem::exists("/opt/velmo/run"));
    EXPECT_FALSE(CWireClient("127.0.0.1", 4911).bConnected());

    stRun("mkdir /opt/velmo/accent/held && mount -t tmpfs held /opt/velmo/accent/held");
    const STCommandResult stHeld = stClient("uninstall Données --delete-files --yes");
    stRun("umount /opt/velmo/accent/held");
    EXPECT_EQ(stHeld.nStatus, 1);
    EXPECT_EQ(stHeld.csOutput, "\"Données\" is uninstalled, but its files could not all be deleted\n");
    EXPECT_EQ(csUnits(), "");
    EXPECT_EQ(stClient("list").csOutput, "NAME  PORT  STATE\n");
}

TEST_F(Wire, TheClientRegistersAServerOrTellsWhyItCannotAndLeavesNoPipeBehind)
{
    PutServer("fresh", 4920);
    PutServer("second", 4921);
    EXPECT_EQ(stRun("cd /opt/velmo/fresh && " + csBuildFolder() + "/velmoctl register 'Fréd 1' ./dxdemo 4920")
                  .csOutput,
              "velmoctl: warning: the program's path is not absolute; /opt/velmo/fresh/dxdemo is meant\n"
              "\"Fréd 1\" is registered and runs\n");
    EXPECT_THAT(
        stRun("mkdir '/opt/velmo/a b' && cp /bin/true '/opt/velmo/a b/' && " + csBuildFolder() +
              "/velmoctl register x '/opt/velmo/a b/true' 4911")
            .csOutput,
        AllOf(HasSubstr("warning: the program's path holds a space, which older managers"),
              HasSubstr("warning: the server \"run\" has port 4911 already\n"),
              HasSubstr("warning: the DXConf.ini beside the program says AccessPort = 4900, not 4911"),
              HasSubstr("velmoctl: the manager answers: ")));
    EXPECT_TRUE(CWireClient("127.0.0.1", 4920).csLine().starts_with("HELLO"));
    const std::string csBefore = csUnits();
    const std::string csSecond = " /opt/velmo/second/dxdemo ";
    const std::tuple<std::string, int, const char*> tCases[] = {
        {"run" + csSecond + "4921", 1, "velmoctl: the manager answers: The server \"run\""},
        {"x /opt/velmo/second/none 4921", 2, "is not a program that can be run"},
        {"x /opt/velmo/second 4921", 2, "is not a program that can be run"},
        {"\"$(printf %0129d 0)\"" + csSecond + "4921", 2, "the name must have 1 to 128 characters"},
        {"x" + csSecond + "65536", 2, "is not a port"},
    };
    for (const auto& [csArguments, nStatus, pszWords] : tCases) {
        SCOPED_TRACE(csArguments);
        const STCommandResult stResult = stClient("register " + csArguments);
        EXPECT_EQ(stResult.nStatus, nStatus);
        EXPECT_THAT(stResult.csOutput, HasSubstr(pszWords));
    }
    const std::string csRegister = csBuildFolder() + "/velmoctl register x" + csSecond + "4921 ";
    EXPECT_THAT(stRun("setpriv --reuid=65534 --clear-groups " + csRegister).csOutput,
                HasSubstr("only root can register"));
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGSTOP), 0);
    EXPECT_EQ(stRun(csRegister + "--timeout 0.2").nStatus, 3);
    EXPECT_EQ(stRun("timeout -s INT 0.2 " + csRegister).nStatus, 124);
    EXPECT_EQ(stRun("ls /tmp | grep __pipe_velmomanager_").csOutput, "__pipe_velmomanager__\n");
    EXPECT_EQ(stClient("list --timeout 0.3").nStatus, 3) << "it is as silent over TCP";
    EXPECT_EQ(csUnits(), csBefore);
    ASSERT_EQ(::kill(m_pclManager->nPid(), SIGCONT), 0);
    EXPECT_TRUE(bWaitUntil([] { return stClient("status x").csOutput == "running\n"; }, 20'000))
        << "it was at it";
    m_clTool.Reset();
    EXPECT_EQ(m_pclManager->nStop(), 0);
    EXPECT_EQ(stRun(csRegister).csOutput, "velmoctl: no manager runs on this machine\n");
}
