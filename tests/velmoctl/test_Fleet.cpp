// Many machines in one command: forty managers in networks of their own, some of which are no good, and what
// monitoring systems are told.

#include "ScriptedManager.h"
#include "tools/PrivateWorld.h"
#include "tools/Wait.h"
#include "velmoctl/Json.h"

#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <memory>
#include <sched.h>

using ::testing::HasSubstr;
using ::testing::MatchesRegex;

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

/// A service manager whose machine has $SERVERS servers, all running.
constexpr const char* s_pszSystemctl = R"(
show() {
    echo "Id=$1.service"
    echo "Type=forking"
    echo "ExecStart={ path=/run/velmo/$1/dxsrv ; argv[]=/run/velmo/$1/dxsrv --SERVICE $1 ; ignore_errors=no }"
    echo "Description=$1"
}
case "$*" in
*list-units*)
    n=1
    while [ $n -le $SERVERS ]; do
        echo "  DXCS-S$n.service loaded active running DXCS-S$n"
        n=$((n + 1))
    done ;;
*ActiveState*) echo ActiveState=active ;;
*Description*)
    first=1
    for word; do
        case $word in
        DXCS-S*)
            [ -n "$first" ] || echo
            first=
            show "${word%.service}" ;;
        dxsql*) [ -n "$first" ] || echo; echo "Id=dxsql.service"; echo Type=; echo Description=dxsql.service ;;
        esac
    done ;;
esac
exit 0)";

std::string csNumber(int nMachine)
{
    return (nMachine < 10 ? "0" : "") + std::to_string(nMachine);
}

/// A bridge with forty machines on it: each a network of its own with one address, a manager in it unless
/// told otherwise.
class CFleetWorld
{
public:
    CFleetWorld() : m_clSystemctl("/bin/systemctl", s_pszSystemctl)
    {
        std::string csBatch = "link add br0 type bridge\nlink set br0 up\naddr add 10.99.0.1/24 dev br0\n";
        std::string csSetUp = "set -e; ip -batch $0/batch;";
        for (int n = 1; n <= s_nMachines; ++n) {
            const std::string cs = csNumber(n);
            csBatch += "netns add m" + cs + "\nlink add v" + cs + " type veth peer name eth0 netns m" + cs +
                       "\nlink set v" + cs + " master br0 up\n";
            csSetUp += "ip -n m" + cs + " addr add 10.99.0." + std::to_string(100 + n) +
                       "/24 dev eth0; ip -n m" + cs + " link set eth0 up;";
            m_csHosts += "m" + cs + " ansible_host=10.99.0." + std::to_string(100 + n) + "\n";
        }
        m_clFolder.csWrite("batch", csBatch);
        const STCommandResult st = stRun("sh -c '" + csSetUp + "' " + m_clFolder.csPath());
        EXPECT_EQ(st.nStatus, 0) << st.csOutput;
        m_csHosts = m_clFolder.csWrite("hosts", m_csHosts + "[good]\nm[01:04]\nm[32:40]\n");
        for (int n = 1; n <= s_nMachines; ++n) {
            _Populate(n);
        }
        for (const auto& pcl : m_tManagers) {
            EXPECT_TRUE(pcl->bAnswers());
        }
    }
    ~CFleetWorld()
    {
        m_tManagers.clear();
        stRun("ip -all netns del; ip link del br0");
    }
    const std::string& csHosts() const { return m_csHosts; }

private:
    /// A manager in another network, whose answer is awaited there.
    class CManagerElsewhere
    {
    public:
        CManagerElsewhere(const std::string& csMachine, int nServers)
            : m_csEnter("ip netns exec " + csMachine + " "),
              m_clProcess(m_csEnter + "env SERVERS=" + std::to_string(nServers) + " " + csBuildFolder() +
                          "/VelmoManager")
        {}
        bool bAnswers() const
        {
            return bWaitUntil(
                [this] { return stRun(m_csEnter + "grep -q ':1387 .* 0A ' /proc/net/tcp").nStatus == 0; },
                10'000);
        }

    private:
        std::string m_csEnter;
        CManagerProcess m_clProcess;
    };

    void _Populate(int nMachine)
    {
        const std::string csMachine = "m" + csNumber(nMachine);
        if (const auto it = s_tScripts.find(nMachine); it != s_tScripts.end()) {
            _Script(csMachine, [&tTexts = it->second](const CClientSide& cl) {
                cl.Recite(tTexts);
                cl.StaySilent();
            });
        } else if (nMachine != s_nRefuses) {
            m_tManagers.push_back(
                std::make_unique<CManagerElsewhere>(csMachine, nMachine == s_nCrowded ? 50 : 1));
        }
    }
    void _Script(const std::string& csMachine, const CScriptedServer::Serve& fnServe)
    {
        std::jthread([&] { // sockets belong to the network of the thread that makes them
            const CDescripteur clNetwork(::open(("/run/netns/" + csMachine).c_str(), O_RDONLY | O_CLOEXEC));
            ASSERT_EQ(::setns(clNetwork.nFd(), CLONE_NEWNET), 0);
            m_tScripted.push_back(std::make_unique<CScriptedServer>(fnServe, "0.0.0.0", 4999));
        });
    }

    CTempDir m_clFolder;
    CFakeTool m_clSystemctl;
    std::string m_csHosts;
    std::vector<std::unique_ptr<CManagerElsewhere>> m_tManagers;
    std::vector<std::unique_ptr<CScriptedServer>> m_tScripted;
};

/// The lines of the table for the machines that answer, in the order of the file.
std::string csExpectedTable()
{
    std::string cs = "HOST  NAME  PORT  STATE\n";
    for (int n = 1; n <= s_nMachines; ++n) {
        const bool bGood = n != s_nRefuses && n != s_nHangs && n != s_nHalf && n != s_nForeign;
        for (int nServer = 1; bGood && nServer <= (n == s_nCrowded ? 50 : 1); ++nServer) {
            const std::string csName = "S" + std::to_string(nServer);
            cs +=
                "m" + csNumber(n) + "   " + csName + std::string(6 - csName.size(), ' ') + "4900  running\n";
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
         "asked; "
         "a "
         "server shown as stopped may have failed\n"},
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
    const std::tuple<const char*, int, const char*> tCases[] = {
        {"", 2,
         "CRITICAL - 1 of 3 servers running: B/x stopped, C starting \\| not_running=2;0;0;0;3 "
         "running=1;;;0;3 "},
        {"-c 2 -w 1", 1, "WARNING - 1 of 3 .* \\| not_running=2;1;2;0;3 "},
        {"-c 5 -w 2", 0, "OK - .* \\| not_running=2;2;5;0;3 "},
        {"-c @1:2", 2, "CRITICAL - .*not_running=2;0;@1:2;"},
        {"-c 3: -w ~:9", 2, "CRITICAL - .*not_running=2;~:9;3:;"},
        {"A", 0, "OK - 1 of 1 servers running \\| not_running=0;0;0;0;1 "},
        {"--ignore 'B*,C'", 0, "OK - 1 of 1 "},
        {"A Gone", 2, "CRITICAL - 1 of 2 servers running: Gone missing \\| "},
        {"A Gone --host 127.0.0.1,127.1", 2,
         "CRITICAL - 2 of 4 servers running: Gone on 127.0.0.1 missing, Gone on 127.1 missing \\| "},
        {"-c 2:1", 3, "UNKNOWN - \"2:1\" is not a range"},
        {"-w x", 3, "UNKNOWN - \"x\" is not a range"},
        {"--dry-run", 3, "UNKNOWN - "},
        {"--hosts /no/file", 3, "UNKNOWN - the hosts file /no/file cannot be read"},
        {"--host nobody.invalid", 2, "CRITICAL - 1 silent: the host \"nobody.invalid\" cannot be found: "},
    };
    for (const auto& [pszArguments, nStatus, pszLine] : tCases) {
        SCOPED_TRACE(pszArguments);
        const STCommandResult st = stClient(clManager.csPort(), std::string("check ") + pszArguments);
        EXPECT_EQ(st.nStatus, nStatus);
        const std::string csTail = nStatus == 3 ? "[^\n|]*\n" : "[^\n]* time=[0-9.]+s;;;0\n";
        EXPECT_THAT(st.csOutput, MatchesRegex("VELMO " + std::string(pszLine) + csTail));
    }
}

TEST(Fleet, MetricsAreWholeEscapedAndReplacedAtOnce)
{
    CScriptedManager clManager({{"INFO", "YES\tv\"\\\ts\033\n\tk\tp\tm\tA\t1\tA\t1\tB\"\t007\tC\t3"},
                                {"STATUS\tA", "STATUS\tRUNNING"},
                                {"STATUS\tB\"", "STATUS\tSTOPPED"},
                                {"STATUS\tC", "ERROR\t4"}});
    const CTempDir clFolder;
    const std::string csFile = clFolder.csWrite("velmo.prom", "old");
    const STCommandResult st = stClient(clManager.csPort(), "metrics --host 127.0.0.1 --output " + csFile +
                                                                "; ls -A " + clFolder.csPath());
    EXPECT_THAT(st.csOutput, MatchesRegex("velmoctl: the state of the server \"C\" [^\n]*\nvelmo.prom\n"));
    const std::string csText = clFolder.csRead("velmo.prom");
    for (const char* const psz :
         {"\nvelmo_manager_up{host=\"127.0.0.1\"} 1\n", "\nvelmo_manager_servers{host=\"127.0.0.1\"} 4\n",
          "\nvelmo_manager_info{host=\"127.0.0.1\",version=\"v\\\"\\\\\",system=\"s��\",kernel=\"k\"} 1\n",
          "# TYPE velmo_server_up gauge\nvelmo_server_up{host=\"127.0.0.1\",server=\"A\"} 1\n"
          "velmo_server_up{host=\"127.0.0.1\",server=\"B\\\"\"} 0\n# HELP velmo_server_state",
          "{host=\"127.0.0.1\",server=\"B\\\"\",state=\"stopped\"} 1\n",
          "# TYPE velmo_server_port gauge\nvelmo_server_port{host=\"127.0.0.1\",server=\"A\"} 1\n"
          "velmo_server_port{host=\"127.0.0.1\",server=\"C\"} 3\n"}) {
        EXPECT_THAT(csText, HasSubstr(psz));
    }
    EXPECT_THAT(stClient(clManager.csPort(), "metrics --output " + clFolder.csPath() + "/no/x").csOutput,
                HasSubstr("could not be written: No such file or directory"));
    EXPECT_EQ(stRun("mkfifo " + clFolder.csPath("fifo")).nStatus, 0);
    EXPECT_THAT(stClient(clManager.csPort(), "metrics --output " + clFolder.csPath("fifo")).csOutput,
                HasSubstr("could not be written: it is not a regular file"));
    EXPECT_EQ(stRun("test -p " + clFolder.csPath("fifo")).nStatus, 0) << "it is still there";
}
