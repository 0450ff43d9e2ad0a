// Many machines in one command: forty managers at addresses of their own, some of which are no good, and what
// monitoring systems are told.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"
#include "velmoctl/Json.h"

#include <chrono>
#include <gmock/gmock.h>
#include <list>
#include <sys/stat.h>

using ::testing::HasSubstr;

namespace {
using CClock = std::chrono::steady_clock;
constexpr int s_nMachines = 40;

/// Machine numbers of those that are no good, and of the one with many servers.
constexpr int s_nRefuses = 5, s_nHangs = 11, s_nForeign = 23, s_nCrowded = 31;

std::string csMachine(int nMachine)
{
    return (nMachine < 10 ? "m0" : "m") + std::to_string(nMachine);
}

int nServers(int nMachine)
{
    return nMachine == s_nCrowded ? 50 : 1;
}

/// Forty addresses of the loopback with a manager at each, unless told otherwise.
class CFleetWorld
{
public:
    CFleetWorld()
    {
        std::string csHosts;
        for (int n = 1; n <= s_nMachines; ++n) {
            const std::string csAddress = "127.0.0." + std::to_string(100 + n);
            csHosts += csMachine(n) + " ansible_host=" + csAddress + "\n";
            _Populate(n, csAddress);
        }
        m_csHosts = m_clFolder.csWrite("hosts", csHosts + "[good]\nm[01:04]\nm[32:40]\n");
    }
    const std::string& csHosts() const { return m_csHosts; }

private:
    void _Populate(int nMachine, const std::string& csAddress)
    {
        if (nMachine == s_nHangs || nMachine == s_nForeign) {
            const auto fnServe = [csHello = nMachine == s_nHangs ? g_csGreeting : "220 mail ready\r\n"](
                                     const CClientSide& cl) {
                cl.bSend(csHello);
                cl.StaySilent();
            };
            m_tScripted.emplace_back(fnServe, csAddress, 4999);
        } else if (nMachine != s_nRefuses) {
            m_tManagers.emplace_back(_tAnswers(nServers(nMachine)), csAddress, 4999);
        }
    }
    static CScriptedManager::Answers _tAnswers(int nServers)
    {
        CScriptedManager::Answers tAnswers = {{"START\tS1", "OK"}};
        std::string csServers;
        for (int n = 1; n <= nServers; ++n) {
            csServers += "\tS" + std::to_string(n) + "\t4900";
            tAnswers["STATUS\tS" + std::to_string(n)] = "STATUS\tRUNNING";
        }
        tAnswers["INFO"] = csInfo(csServers);
        return tAnswers;
    }

    CTempDir m_clFolder;
    std::string m_csHosts;
    std::list<CScriptedManager> m_tManagers;
    std::list<CScriptedServer> m_tScripted;
};

/// The lines of the table for the machines that answer, in the order of the file.
std::string csExpectedTable()
{
    std::string cs = "HOST  NAME  PORT  STATE\n";
    for (int n = 1; n <= s_nMachines; ++n) {
        const bool bGood = n != s_nRefuses && n != s_nHangs && n != s_nForeign;
        for (int nServer = 1; bGood && nServer <= nServers(n); ++nServer) {
            cs += csMachine(n) + "   S" + std::to_string(nServer) + (nServer < 10 ? " " : "") +
                  "   4900  running\n";
        }
    }
    return cs;
}
} // namespace

TEST(Fleet, FortyMachinesAreListedInTimeWhateverSomeOfThemDo)
{
    REQUIRE_PRIVATE_WORLD();
    const CFleetWorld clWorld;
    const std::string csAsk = csClient() + " --hosts " + clWorld.csHosts() + " ";

    const CTempDir clFolder;
    const auto clStart = CClock::now();
    const STCommandResult stTold = stRun(csAsk + "--timeout 2 list 2>&1 >" + clFolder.csPath("table"));
    EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(3));
    EXPECT_EQ(stTold.nStatus, 4);
    EXPECT_EQ(stRun("cat " + clFolder.csPath("table")).csOutput, csExpectedTable());
    EXPECT_EQ(stTold.csOutput,
              "velmoctl: 3 of 40 machines gave no answer:\n"
              "velmoctl: m05: no manager can be reached on m05, port 4999: Connection refused\n"
              "velmoctl: m11: the manager on m11, port 4999 did not answer within 2 s\n"
              "velmoctl: m23: what listens on m23, port 4999 is not a manager\n");

    // Those that hang do not hold up the lines of the others.
    const STCommandResult stEarly = stRun("timeout 4 " + csAsk + "--timeout 30 list 2>/dev/null");
    EXPECT_EQ(stEarly.nStatus, 124);
    EXPECT_EQ(stEarly.csOutput, csExpectedTable());

    // The same for programs.
    const STCommandResult stJson = stRun(csAsk + "--timeout 1 --json list 2>/dev/null");
    EXPECT_EQ(stJson.nStatus, 4);
    const Json clRows = Json::parse(stJson.csOutput);
    EXPECT_EQ(clRows.size(), 40u + 49);
    EXPECT_EQ(clRows[0].dump().substr(0, 24), R"({"host":"m01","asked":"2)");
    std::string csErrors;
    for (const Json& cl : clRows) {
        if (!cl["error"].is_null()) {
            EXPECT_TRUE(cl["name"].is_null());
            csErrors += cl["host"].get<std::string>() + " " + cl["error"]["kind"].get<std::string>() + " " +
                        cl["error"]["status"].dump() + ";";
        }
    }
    EXPECT_EQ(csErrors, "m05 unreachable 3;m11 unreachable 3;m23 nonsense 4;");

    const std::tuple<const char*, int, const char*> tCases[] = {
        {"--group good status S1 --no-header --timeout 20", 0, "m01   S1    running\nm02   S1    running\n"},
        {"--timeout 1 status S1", 4, "m40   S1    running\n"},
        {"--host m02 status S1", 0, "running\n"}, // the file only tells where it is
        {"--timeout 1 info", 4, "m31   24.0.6.0  Linux"},
        {"--host m05 --group good start S1", 3,
         "\"S1\" on m40 is started\nvelmoctl: 1 of 14 machines gave no"},
        {"--group good check", 0,
         "VELMO OK - 13 of 13 servers running | not_running=0;0;0;0;13 running=13;;;0;13 "},
        {"--timeout 1 check", 2, "VELMO CRITICAL - 3 silent: no manager can be reached on m05, port 4999"},
        {"--group good --host m05,m23 metrics", 4, "velmo_manager_up{host=\"m05\"} 0\n"},
    };
    for (const auto& [pszArguments, nStatus, pszShown] : tCases) {
        SCOPED_TRACE(pszArguments);
        const STCommandResult st = stRun(csAsk + pszArguments);
        EXPECT_EQ(st.nStatus, nStatus);
        EXPECT_THAT(st.csOutput, HasSubstr(pszShown));
    }
}

TEST(Fleet, AServiceManagerThatHangsIsToldInTime)
{
    REQUIRE_PRIVATE_WORLD();
    const CFakeTool clSystemctl("/bin/systemctl", "exec sleep 20");
    stRun("mkdir -p /run/systemd/system");
    const CScriptedServer clManager(
        [](const CClientSide& cl) {
            cl.Recite({g_csGreeting, "OK\r\n", "STATUS\tSTOPPED\r\n", "STATUS\tSTOPPED\r\n"});
            cl.StaySilent();
        },
        "127.0.0.1", 4999);
    const std::tuple<const char*, int, const char*> tCases[] = {
        {"status --no-header A B", 3,
         "A     stopped\nB     stopped\nvelmoctl: warning: the service manager of this machine could not be "
         "asked; a server shown as stopped may have failed\n"},
        {"stop A", 1, "velmoctl: systemd of this machine could not be asked about the server \"A\"\n"},
    };
    for (const auto& [pszArguments, nStatus, pszShown] : tCases) {
        const auto clStart = CClock::now();
        const STCommandResult st = stRun(csClient() + " --timeout 1 " + pszArguments);
        EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(3));
        EXPECT_EQ(st.nStatus, nStatus);
        EXPECT_EQ(st.csOutput, pszShown);
    }
    stRun("rm -r /run/systemd");
}

TEST(Fleet, ChecksKeepToTheConventionsOfMonitoringPlugins)
{
    CScriptedManager clManager({{"INFO", "YES\tv\ts\tk\tp\tm\tA\t1\tB|x\t2\tC\t3"},
                                {"STATUS\tA", "STATUS\tRUNNING"},
                                {"STATUS\tB|x", "STATUS\tSTOPPED"},
                                {"STATUS\tC", "STATUS\tSTART_PENDING"}});
    ExpectTranscript(clManager, "checks.txt");
    EXPECT_EQ(stClient(clManager.csPort(), "check --dry-run").nStatus, 3);
}

TEST(Fleet, MetricsAreWholeAndEscaped)
{
    CScriptedManager clManager({{"INFO", "YES\tv\"\\\ts\033\n\tk\tp\tm\tA\t1\tA\t1\tB\"\t007\tC\t3"},
                                {"STATUS\tA", "STATUS\tRUNNING"},
                                {"STATUS\tB\"", "STATUS\tSTOPPED"},
                                {"STATUS\tC", "ERROR\t4"}});
    ExpectTranscript(clManager, "metrics.txt");
}

TEST(Fleet, AMetricsFileIsReplacedAtOnceByAWholeOne)
{
    CScriptedManager clManager(CScriptedManager::Answers{{"INFO", csInfo("")}});
    const CTempDir clFolder;
    clFolder.csWrite("velmo.prom", "old");
    ASSERT_EQ(::mkfifo(clFolder.csPath("fifo").c_str(), 0600), 0);
    const std::string csWrite = "metrics --output " + clFolder.csPath() + "/";
    EXPECT_EQ(stClient(clManager.csPort(), csWrite + "velmo.prom").csOutput, "");
    EXPECT_THAT(clFolder.csRead("velmo.prom"), HasSubstr("\nvelmo_manager_servers{"));
    EXPECT_THAT(stClient(clManager.csPort(), csWrite + "no/x").csOutput,
                HasSubstr("could not be written: No such file or directory"));
    EXPECT_THAT(stClient(clManager.csPort(), csWrite + "fifo").csOutput,
                HasSubstr("could not be written: it is not a regular file"));
    EXPECT_EQ(stRun("cd " + clFolder.csPath() + "; test -p fifo && ls -A").csOutput, "fifo\nvelmo.prom\n");
}
