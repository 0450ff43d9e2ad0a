// Servers that come and go, with the sample server, in a machine with a real systemd and in one without any
// service manager: registration through the pipe, discovery over a network, restart on failure.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <sched.h>
#include <thread>

namespace {
using ::testing::HasSubstr;
using ::testing::Not;
using Clock = std::chrono::steady_clock;

bool bSystemd()
{
    return std::filesystem::exists("/run/systemd/system");
}

/// Runs "start", "stop" and so on of a service in the machine's own way.
STCommandResult stService(const std::string& csVerb, const std::string& csService)
{
    return stRun(bSystemd() ? "systemctl " + csVerb + " " + csService
                            : "/etc/init.d/" + csService + " " + csVerb);
}

/// Names and contents of all registered servers.
std::string csRegistry()
{
    return stRun("head -n 100 /lib/systemd/system/DXCS-* /etc/init.d/DXCS-* 2>/dev/null").csOutput;
}

/// A freshly installed server, not registered yet.
void Install(const std::string& csFolder, const std::string& csName, int nPort,
             const std::string& csDemo = "")
{
    const std::string csHome = "/opt/velmo/" + csFolder + "/";
    std::filesystem::create_directories(csHome);
    std::filesystem::copy_file(csBuildFolder() + "/dxdemo", csHome + "dxdemo");
    std::ofstream(csHome + "DXConf.ini")
        << "[INIT]\nName=" << csName << "\nAccessPort=" << nPort << "\n[DEMO]\n"
        << csDemo;
}

/// The server's own words about its registration; empty when it went well.
std::string csRegisters(const std::string& csFolder)
{
    std::string csAnswer = stRun("/opt/velmo/" + csFolder + "/dxdemo --REGISTER").csOutput;
    csAnswer.pop_back(); // line end
    return csAnswer;
}

} // namespace

class Servers : public ::testing::Test
{
protected:
    void TearDown() override
    {
        m_pclManager.reset();
        stRun("for n in $(ls /etc/init.d | grep ^DXCS-); do /etc/init.d/$n stop; update-rc.d -f $n remove; "
              "rm /etc/init.d/$n; done; systemctl stop 'DXCS-*'; systemctl reset-failed; "
              "rm -rf /opt/velmo /lib/systemd/system/DXCS-* /etc/systemd/system/DXCS-* "
              "/etc/systemd/system/*/DXCS-*; systemctl daemon-reload");
    }
    /// A manager with settings of its own in section MANAGER.
    void Start(const std::string& csSettings = "RestartOnFailed=0\n")
    {
        const std::string csHome = "/opt/velmo/manager/";
        std::filesystem::create_directories(csHome);
        for (const char* pszFile : {"VelmoManager", "zt240vm64.so", "zt240obj.so"}) {
            std::filesystem::copy_file(csBuildFolder() + "/" + pszFile, csHome + pszFile,
                                       std::filesystem::copy_options::overwrite_existing);
        }
        std::ofstream(csHome + "DXConf.ini") << "[MANAGER]\n" << csSettings;
        m_pclManager = std::make_unique<CManagerProcess>(csHome + "VelmoManager");
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(
            bWaitUntil([] { return bWritePipe("/tmp/__pipe_velmomanager__", ""); }, 5000)); // it is read
    }
    static std::string csAsk(const std::string& csLine)
    {
        CWireClient clTool("127.0.0.1", 4999);
        clTool.csLine();
        return clTool.csAsk(csLine, std::chrono::seconds(20));
    }
    static bool bFails(const std::string& csName)
    {
        return bWaitUntil(
            [&] {
                return bSystemd() ? stRun("systemctl is-failed DXCS-" + csName).nStatus == 0
                                  : stService("status", "DXCS-" + csName).nStatus == 1;
            },
            5000);
    }
    /// Kills a server so that its service is a failed one: systemd itself would else bring it back.
    static void Kill(const std::string& csName)
    {
        const std::string csUnit = "DXCS-" + csName;
        if (bSystemd()) {
            stRun("sed -i /^Restart/d /lib/systemd/system/" + csUnit + ".service; systemctl daemon-reload");
        }
        ASSERT_EQ(stRun("kill -9 $(cat /var/run/" + csUnit + ".pid)").nStatus, 0);
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
};

TEST_F(Servers, AFreshServerRegistersItselfAndRunsAndIsListed)
{
    Start();
    for (const auto& [pszFolder, pszName, nPort] : {std::tuple{"first", "first", 4911},
                                                    {"generated", "Velmo_20261121 083000", 4912},
                                                    {"accent", "Donn\xE9", 4913}}) {
        SCOPED_TRACE(pszFolder);
        Install(pszFolder, pszName, nPort, "Register=1\n"); // and once more when it is started
        EXPECT_EQ(csRegisters(pszFolder), "");
        EXPECT_EQ(csAsk(std::string("STATUS\t") + pszName), "STATUS\tRUNNING\r\n");
        EXPECT_THAT(csAsk("INFO"), HasSubstr(std::string("\t") + pszName + "\t" + std::to_string(nPort)));
        EXPECT_TRUE(CWireClient("127.0.0.1", static_cast<unsigned short>(nPort)).bConnected());
        const std::string csBefore = csRegistry();
        const std::string csPid =
            stRun("cat /var/run/DXCS-*" + std::string(pszName).substr(0, 4) + "*.pid").csOutput;
        EXPECT_EQ(csRegisters(pszFolder), "") << "again";
        EXPECT_EQ(csRegistry(), csBefore);
        EXPECT_EQ(stRun("cat /var/run/DXCS-*" + std::string(pszName).substr(0, 4) + "*.pid").csOutput, csPid)
            << "a running server is left alone";
    }
    EXPECT_EQ(stRun("ls /lib/systemd/system/DXCS-* /etc/init.d/DXCS-* 2>/dev/null | wc -l").csOutput, "3\n");
}

TEST_F(Servers, ANameOrAPortOfAnotherIsRefusedAndAKnownProgramIsAdopted)
{
    Start();
    Install("orders", "orders", 4911);
    ASSERT_EQ(csRegisters("orders"), "");
    Install("name", "orders", 4912);
    Install("port", "port 100%s %1!d!", 4911);
    const std::string csBefore = csRegistry();
    EXPECT_EQ(csRegisters("name"),
              "The server \"orders\" (/opt/velmo/name/dxdemo) was not registered: its name is already "
              "registered for /opt/velmo/orders/dxdemo. Give it another name, or uninstall the other "
              "server first, then register it again.");
    const std::string csRefusal =
        "The server \"port 100%s %1!d!\" was not registered: its port 4911 is already used by the "
        "server \"orders\". Set another AccessPort in its DXConf.ini, then register it again.";
    EXPECT_EQ(csRegisters("port"), csRefusal);
    EXPECT_EQ(csRegistry(), csBefore);
    if (bSystemd()) {
        EXPECT_TRUE(bWaitUntil(
            [&] { return stRun("journalctl -p crit").csOutput.find(csRefusal) != std::string::npos; }, 5000));
    }

    ASSERT_EQ(stService("stop", "DXCS-orders").nStatus, 0);
    stRun("sed -i 's/^Name=.*/Name=renamed/' /opt/velmo/orders/DXConf.ini");
    EXPECT_EQ(csRegisters("orders"), "");
    EXPECT_EQ(csRegistry(), csBefore);
    EXPECT_EQ(stRun("sed -n 's/^Name *= *//p' /opt/velmo/orders/DXConf.ini").csOutput, "orders\n");
    EXPECT_EQ(csAsk("STATUS\torders"), "STATUS\tRUNNING\r\n");
}

TEST_F(Servers, AStartThatFailsIsInTheReply)
{
    Start();
    Install("fails", "fails", 4911, "FailAtStart=1\n");
    EXPECT_EQ(csRegisters("fails"), "Operation canceled");
    EXPECT_EQ(csAsk("STATUS\tfails"), "STATUS\tSTOPPED\r\n");
}

TEST_F(Servers, TwoHundredWritersOfEveryFormAreServedWhileToolsAsk)
{
    Start("RestartOnFailed=1\nCheckPeriod=0\n");
    Install("many", "many", 4911);
    std::atomic<int> nWrong = 0;
    std::atomic<bool> bDone = false;
    std::thread clTool([&] {
        while (!bDone) {
            nWrong += csAsk("INFO").starts_with("YES\t") ? 0 : 1;
        }
    });
    std::vector<std::thread> tWriters;
    for (int n = 0; n < 200; ++n) {
        tWriters.emplace_back([&, n] {
            const int nForm = n % 20 == 0 ? 1 : n % 20 == 1 ? 0 : 2; // a registration takes its time
            const CReplyPipe clReply(n);
            const std::string st = csRequest(n, nForm, "many", "/opt/velmo/many/dxdemo", 4911);
            nWrong += bWritePipe("/tmp/__pipe_velmomanager__", st) ? 0 : 1;
            nWrong += clReply.csReply(120'000) == (nForm == 1 ? "" : "UNKNOWN") ? 0 : 1;
        });
    }
    for (std::thread& clWriter : tWriters) {
        clWriter.join();
    }
    bDone = true;
    clTool.join();
    EXPECT_EQ(nWrong, 0);
    EXPECT_EQ(csAsk("STATUS\tmany"), "STATUS\tRUNNING\r\n");
    EXPECT_EQ(stRun("ls /lib/systemd/system/DXCS-* /etc/init.d/DXCS-* 2>/dev/null | wc -l").csOutput, "1\n");
    EXPECT_EQ(m_pclManager->nStop(), 0);
    EXPECT_FALSE(std::filesystem::exists("/tmp/__pipe_velmomanager__"));
}

TEST_F(Servers, AKilledServerComesBackAndAStoppedOneDoesNot)
{
    Start("CheckPeriod=1\n");
    for (const auto& [pszName, nPort] : {std::pair{"dies", 4911}, {"rests", 4912}}) {
        Install(pszName, pszName, nPort);
        ASSERT_EQ(csRegisters(pszName), "");
    }
    ASSERT_EQ(stService("stop", "DXCS-rests").nStatus, 0);
    Kill("dies");
    EXPECT_TRUE(
        bWaitUntil([] { return CWireClient("127.0.0.1", 4911).csLine().starts_with("HELLO"); }, 10'000));
    EXPECT_EQ(csAsk("STATUS\tdies"), "STATUS\tRUNNING\r\n");
    EXPECT_EQ(csAsk("STATUS\trests"), "STATUS\tSTOPPED\r\n")
        << "the pass that found the other one left it alone";
}

TEST_F(Servers, WithoutTheSettingAFailedServerStaysFailed)
{
    Start("RestartOnFailed=0\nCheckPeriod=1\n");
    Install("dies", "dies", 4911);
    ASSERT_EQ(csRegisters("dies"), "");
    const std::string csThreads = "/proc/" + std::to_string(m_pclManager->nPid()) + "/task";
    const auto nThreads = std::distance(std::filesystem::directory_iterator(csThreads), {});
    Kill("dies");
    ASSERT_TRUE(bFails("dies"));
    EXPECT_FALSE(bWaitUntil([] { return CWireClient("127.0.0.1", 4911).bConnected(); }, 2500));
    ASSERT_EQ(m_pclManager->nStop(), 0);
    Start("RestartOnFailed=1\nCheckPeriod=600\n");
    EXPECT_TRUE(bWaitUntil(
        [&] {
            const std::string cs = "/proc/" + std::to_string(m_pclManager->nPid()) + "/task";
            return std::distance(std::filesystem::directory_iterator(cs), {}) == nThreads + 1;
        },
        5000))
        << "the monitor is one thread more";
}

TEST_F(Servers, AStopIsPromptInTheMonitorsSleepAndInItsPass)
{
    for (int n = 0; n < 8; ++n) {
        const std::string csName = "s" + std::to_string(n);
        Install(csName, csName, 4911 + n);
    }
    for (const char* pszSettings : {"CheckPeriod=600\n", "CheckPeriod=0\n"}) {
        SCOPED_TRACE(pszSettings);
        Start(pszSettings);
        for (int n = 0; n < 8; ++n) {
            EXPECT_EQ(csRegisters("s" + std::to_string(n)), "");
        }
        const auto clStart = Clock::now();
        EXPECT_EQ(csAsk("STATUS\ts0"), "STATUS\tRUNNING\r\n");
        EXPECT_LT(Clock::now() - clStart, std::chrono::seconds(1)) << "a pass holds up a conversation";
        const auto clStop = Clock::now();
        EXPECT_EQ(m_pclManager->nStop(), 0);
        EXPECT_LT(Clock::now() - clStop, std::chrono::seconds(3));
        EXPECT_FALSE(std::filesystem::exists("/tmp/__pipe_velmomanager__"));
    }
}

TEST_F(Servers, ToolsOfAnotherHostDiscoverTheManager)
{
    ASSERT_EQ(
        stRun(
            "ip netns add tools && ip link add here type veth peer name there netns tools && ip link set "
            "here up"
            " && ip addr add 10.77.0.1/24 brd + dev here && ip addr add 10.77.0.2/24 dev here"
            " && ip addr add fd77::1/64 dev here nodad && ip addr add fd77::2/64 dev here nodad"
            " && ip -n tools link set there up && ip -n tools addr add 10.77.0.9/24 brd + dev there"
            " && ip -n tools addr add fd77::9/64 dev there nodad && ip -n tools route add default dev there")
            .csOutput,
        "");
    Start();
    Install("found", "Donn\xE9", 4911);
    ASSERT_EQ(csRegisters("found"), "");
    std::thread clOtherHost([] {
        const CDescripteur clNetwork(::open("/run/netns/tools", O_RDONLY | O_CLOEXEC));
        ASSERT_EQ(::setns(clNetwork.nFd(), CLONE_NEWNET), 0);
        const struct
        {
            const char* pszAsked;
            const char* pszFrom;
        } tCases[] = {{"10.77.0.1", "10.77.0.1"},   {"10.77.0.2", "10.77.0.2"},
                      {"10.77.0.255", "10.77.0.1"}, {"255.255.255.255", "10.77.0.1"},
                      {"fd77::1", "fd77::1"},       {"fd77::2", "fd77::2"}};
        for (const auto& st : tCases) {
            SCOPED_TRACE(st.pszAsked);
            for (const auto& [pszQuestion, pszName] :
                 {std::pair{"ARE YOU A DEXARO SERVER SETUP?\r\n", "\tDonn\xE9\t4911"},
                  {"ARE YOU A DEXARO MANAGER UTF-8?\r\n", "\tDonn\xC3\xA9\t4911"}}) {
                CPingClient clTool;
                ASSERT_TRUE(clTool.Ask(st.pszAsked, 4999, pszQuestion));
                const std::string csAnswer = clTool.csAnswer();
                EXPECT_TRUE(csAnswer.starts_with(std::string(st.pszFrom) + " YES\t")) << csAnswer;
                EXPECT_TRUE(csAnswer.ends_with(pszName)) << csAnswer;
                EXPECT_EQ(clTool.csAnswer(), std::string(st.pszFrom) + " \r\n");
            }
        }
    });
    clOtherHost.join();
    stRun("ip link del here; ip netns del tools");
}

TEST_F(Servers, TheCleanerOfTmpLeavesThePipeAlone)
{
    if (!bSystemd()) {
        GTEST_SKIP() << "there is no cleaner here";
    }
    Start();
    const auto clRule =
        std::filesystem::path(__FILE__).parent_path() / "../../packaging/tmpfiles.d/velmomanager.conf";
    stRun("mkdir /run/rules; echo 'q /tmp 1777 root root 1s' >/run/rules/tmp.conf; touch -d '2 days ago' "
          "/tmp/old "
          "/tmp/__pipe_velmomanager__; cp " +
          clRule.string() + " /run/rules/");
    const auto fnClean = [](const std::string& csRules) {
        return bWaitUntil(
            [&] { // ages count from the last change of the file's record too
                stRun("systemd-tmpfiles --clean " + csRules);
                return !std::filesystem::exists("/tmp/old");
            },
            5000);
    };
    EXPECT_TRUE(fnClean("/run/rules/tmp.conf /run/rules/velmomanager.conf"));
    EXPECT_TRUE(std::filesystem::exists("/tmp/__pipe_velmomanager__"));
    // Without the rule it goes: the manager lives on, and the next one has its pipe again.
    stRun("systemd-tmpfiles --clean /run/rules/tmp.conf");
    EXPECT_FALSE(std::filesystem::exists("/tmp/__pipe_velmomanager__"));
    EXPECT_THAT(csAsk("INFO"), HasSubstr("YES\t"));
    EXPECT_EQ(m_pclManager->nStop(), 0);
    Start();
}
