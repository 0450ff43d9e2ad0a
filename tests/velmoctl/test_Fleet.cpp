// Many machines in one command: forty managers in networks of their own, some of which are no good, and what
// monitoring systems are told.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"
#include "velmoctl/Json.h"

#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <list>
#include <sched.h>
#include <sys/stat.h>

using ::testing::HasSubstr;

namespace {
using CClock = std::chrono::steady_clock;
constexpr int s_nMachines = 40;

/// Machine numbers of those that are no good, and of the one with many servers.
constexpr int s_nRefuses = 5, s_nHangs = 11, s_nHalf = 17, s_nForeign = 23, s_nCrowded = 31;

/// What those send that answer, but not as a manager does.
const std::map<int, std::vector<std::string>> s_tScripts = {
    {s_nHangs, {g_csGreeting}},
    {s_nHalf, {g_csGreeting, "OK\r\n", "YES\t24.0.6.0\tLinux"}},
    {s_nForeign, {"220 mail ready\r\n"}},
};

std::string csNumber(int nMachine)
{
    return (nMachine < 10 ? "0" : "") + std::to_string(nMachine);
}

int nServers(int nMachine)
{
    return nMachine == s_nCrowded ? 50 : 1;
}

/// Forty machines, a manager in each unless told otherwise.
class CFleetWorld
{
public:
    CFleetWorld() : m_clSystemctl("/bin/systemctl", csReadSource("tests/velmoctl/systemctl"))
    {
        const STCommandResult st = stRun(csReadSource("tests/velmoctl/forty"));
        EXPECT_EQ(st.nStatus, 0) << st.csOutput;
        m_csHosts = m_clFolder.csWrite("hosts", st.csOutput);
        for (int n = 1; n <= s_nMachines; ++n) {
            _Populate(n);
        }
        for (int n = 1; n <= s_nMachines; ++n) {
            EXPECT_TRUE(n == s_nRefuses || bWaitUntil([n] { return _bTalks(n); }, 10'000)) << n;
        }
    }
    ~CFleetWorld()
    {
        m_tManagers.clear();
        stRun("ip -all netns del; ip link del br0");
    }
    const std::string& csHosts() const { return m_csHosts; }

private:
    static bool _bTalks(int nMachine)
    {
        return CWireClient(("10.99.0.1" + csNumber(nMachine)).c_str(), 4999).csLine().ends_with("\r\n");
    }
    void _Populate(int nMachine)
    {
        if (const auto it = s_tScripts.find(nMachine); it != s_tScripts.end()) {
            _Script(nMachine, [&tTexts = it->second](const CClientSide& cl) {
                cl.Recite(tTexts);
                cl.StaySilent();
            });
        } else if (nMachine != s_nRefuses) {
            m_tManagers.emplace_back("ip netns exec m" + csNumber(nMachine) +
                                     " env SERVERS=" + std::to_string(nServers(nMachine)) + " " +
                                     csBuildFolder() + "/VelmoManager");
        }
    }
    void _Script(int nMachine, const CScriptedServer::Serve& fnServe)
    {
        std::jthread([&] { // sockets belong to the network of the thread that makes them
            const CDescripteur clNetwork(
                ::open(("/run/netns/m" + csNumber(nMachine)).c_str(), O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(::setns(clNetwork.nFd(), CLONE_NEWNET), 0);
            m_tScripted.emplace_back(fnServe, "0.0.0.0", 4999);
        });
    }

    CTempDir m_clFolder;
    CFakeTool m_clSystemctl;
    std::string m_csHosts;
    std::list<CManagerProcess> m_tManagers;
    std::list<CScriptedServer> m_tScripted;
};

/// The lines of the table for the machines that answer, in the order of the file.
std::string csExpectedTable()
{
    std::string cs = "HOST  NAME  PORT  STATE\n";
    for (int n = 1; n <= s_nMachines; ++n) {
        const bool bGood = n != s_nRefuses && !s_tScripts.contains(n);
        for (int nServer = 1; bGood && nServer <= nServers(n); ++nServer) {
            cs += "m" + csNumber(n) + "   S" + std::to_string(nServer) + (nServer < 10 ? " " : "") +
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
              "velmoctl: 4 of 40 machines gave no answer:\n"
              "velmoctl: m05: no manager can be reached on m05, port 4999: Connection refused\n"
              "velmoctl: m11: the manager on m11, port 4999 did not answer within 2 s\n"
              "velmoctl: m17: the manager on m17, port 4999 did not answer within 2 s\n"
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
    EXPECT_EQ(csErrors, "m05 unreachable 3;m11 unreachable 3;m17 unreachable 3;m23 nonsense 4;");

    const std::tuple<const char*, int, const char*> tCases[] = {
        {"--group good status S1 --no-header --timeout 20", 0, "m01   S1    running\nm02   S1    running\n"},
        {"--timeout 1 status S1", 4, "m40   S1    running\n"},
        {"--host m02 status S1", 0, "running\n"}, // the file only tells where it is
        {"--timeout 1 info", 4, "m31   24.0.6.0  Linux"},
        {"--host m05 --group good start S1", 3,
         "\"S1\" on m40 is started\nvelmoctl: 1 of 14 machines gave no"},
        {"--group good check", 0,
         "VELMO OK - 13 of 13 servers running | not_running=0;0;0;0;13 running=13;;;0;13 "},
        {"--timeout 1 check", 2, "VELMO CRITICAL - 4 silent: no manager can be reached on m05, port 4999"},
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
