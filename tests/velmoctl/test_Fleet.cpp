// Many machines in one command: forty managers in networks of their own, some of which are no good, and what
// monitoring systems are told.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

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

constexpr int s_nRefuses = 5, s_nCrowded = 31;

/// What those machines send that answer, but not as a manager does: one hangs, one stops halfway, one is
/// something else.
const std::map<int, std::vector<std::string>> s_tScripts = {
    {11, {g_csGreeting}},
    {17, {g_csGreeting, "OK\r\n", "YES\t24.0.6.0\tLinux"}},
    {23, {"220 mail ready\r\n"}},
};

std::string csNumber(int nMachine)
{
    return (nMachine < 10 ? "0" : "") + std::to_string(nMachine);
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
                                     " env SERVERS=" + (nMachine == s_nCrowded ? "50" : "1") + " " +
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
} // namespace

TEST(Fleet, FortyMachinesAreListedInTimeWhateverSomeOfThemDo)
{
    REQUIRE_PRIVATE_WORLD();
    const CFleetWorld clWorld;
    const std::string csHosts = "--hosts " + clWorld.csHosts();
    const auto clStart = CClock::now();
    EXPECT_EQ(stRun(csClient() + " " + csHosts + " list --timeout 2").nStatus, 4);
    EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(3));
    Play(csHosts, "fleet.txt");
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
    const auto clStart = CClock::now();
    Play("--timeout 1", "hangs.txt");
    EXPECT_LT(CClock::now() - clStart, std::chrono::seconds(5));
    stRun("rm -r /run/systemd");
}

TEST(Fleet, ChecksKeepToTheConventionsOfMonitoringPlugins)
{
    CScriptedManager clManager({{"INFO", "YES\tv\ts\tk\tp\tm\tA\t1\tB|x\t2\tC\t3"},
                                {"STATUS\tA", "STATUS\tRUNNING"},
                                {"STATUS\tB|x", "STATUS\tSTOPPED"},
                                {"STATUS\tC", "STATUS\tSTART_PENDING"}});
    Play(clManager, "checks.txt");
    EXPECT_EQ(stClient(clManager.csPort(), "check --dry-run").nStatus, 3);
}

TEST(Fleet, MetricsAreWholeAndEscaped)
{
    CScriptedManager clManager({{"INFO", "YES\tv\"\\\ts\033\n\tk\tp\tm\tA\t1\tA\t1\tB\"\t007\tC\t3"},
                                {"STATUS\tA", "STATUS\tRUNNING"},
                                {"STATUS\tB\"", "STATUS\tSTOPPED"},
                                {"STATUS\tC", "ERROR\t4"}});
    Play(clManager, "metrics.txt");
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
