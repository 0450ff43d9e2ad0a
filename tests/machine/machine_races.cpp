// One server is killed, removed, started and registered at the same time, again and again, in a machine with
// a real systemd and in one without any service manager. Another server that is killed meanwhile, and one
// that hangs at its start, show that nobody is held up.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <thread>

namespace {
using CClock = std::chrono::steady_clock;
using namespace std::chrono_literals;

bool bSystemd()
{
    return std::filesystem::exists("/run/systemd/system");
}

long nMsSince(CClock::time_point clStart)
{
    return (CClock::now() - clStart) / 1ms;
}

std::string csAsk(const std::string& csLine)
{
    return csAskManager(csLine, 60s);
}

std::string csRegister(const std::string& csFolder)
{
    return stRun("/opt/velmo/" + csFolder + "/dxdemo --REGISTER | tr -d '\\n'").csOutput;
}

/// From its next start on.
void HangAtStart(const std::string& csFolder)
{
    std::ofstream("/opt/velmo/" + csFolder + "/DXConf.ini", std::ios::app) << "StartDelay=600000\n";
}

void KillServer(const std::string& csName)
{
    stRun("kill -9 $(cat /run/DXCS-" + csName + ".pid)");
}

std::string csPid(const std::string& csName)
{
    return stRun("cat /run/DXCS-" + csName + ".pid").csOutput;
}

bool bServes(unsigned short wPort)
{
    return CWireClient("127.0.0.1", wPort).csLine(500ms).starts_with("HELLO");
}

bool bRegistered(const std::string& csName)
{
    return std::filesystem::exists("/lib/systemd/system/DXCS-" + csName + ".service") ||
           std::filesystem::exists("/etc/init.d/DXCS-" + csName);
}

/// Processes of a server, and tools that act on it.
std::string csProcesses(const std::string& csName)
{
    return stRun("pgrep -af '(dxdemo --SERVICE|systemctl .*) DXCS-" + csName + "( |$)'").csOutput;
}

/// Kills a server every few seconds and notes how long it takes until it serves again.
class CBystander
{
public:
    CBystander() : m_clThread([this] { __Run(); }) {}
    ~CBystander()
    {
        m_bEnd = true;
        m_clThread.join();
    }
    long nSlowestMs() const { return m_nSlowestMs; }
    int nKills() const { return m_nKills; }

private:
    void __Run()
    {
        while (!m_bEnd) {
            const std::string csBefore = csPid("bystander"); // another one may serve before we look
            KillServer("bystander");
            ++m_nKills;
            const auto clKilled = CClock::now();
            EXPECT_TRUE(bWaitUntil([&] { return csPid("bystander") != csBefore && bServes(4912); }, 20'000));
            m_nSlowestMs = std::max<long>(m_nSlowestMs, nMsSince(clKilled));
            std::this_thread::sleep_for(1s);
        }
    }
    std::atomic<bool> m_bEnd{false};
    std::atomic<long> m_nSlowestMs{0};
    std::atomic<int> m_nKills{0};
    std::thread m_clThread;
};

} // namespace

class Races : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (bSystemd()) { // its limit on starts is not what is tried here
            std::filesystem::create_directories("/etc/systemd/system.conf.d");
            std::ofstream("/etc/systemd/system.conf.d/x.conf")
                << "[Manager]\nDefaultStartLimitBurst=1000000\n";
            stRun("systemctl daemon-reexec");
        }
        PutManager("manager", "CheckPeriod=1\n");
        m_pclManager = std::make_unique<CManagerProcess>("/opt/velmo/manager/VelmoManager");
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(bWaitUntil([] { return bWritePipe("/tmp/__pipe_velmomanager__", ""); }, 5000));
        for (const auto& [pszName, nPort] : {std::pair{"bystander", 4912}, {"hangs", 4913}}) {
            PutServer(pszName, nPort, "", pszName);
            ASSERT_EQ(csRegister(pszName), "");
        }
        PutServer("victim", 4911, "", "victim");
        // The manager is to bring them back, not systemd; the next start of one hangs.
        stRun("sed -i /^Restart/d /lib/systemd/system/DXCS-*; systemctl daemon-reload");
        HangAtStart("hangs");
        KillServer("hangs");
        ASSERT_TRUE(bWaitUntil(
            [] { return stRun("pgrep -cf 'dxdemo --SERVICE DXCS-hangs'").csOutput >= "1\n"; }, 10'000));
    }
    void TearDown() override
    {
        m_pclManager.reset();
        stRun("pkill -9 dxdemo");
        RemoveServices();
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
    std::mt19937 m_clRandom{20261121};
};
TEST_F(Races, NoProcessWithoutAServiceNoHangingToolAndNoWrongAnswer)
{
    const int nRounds = std::getenv("VELMO_LONG") != nullptr ? 500 : 25;
    const std::pair<const char*, std::function<std::string()>> tRacers[] = {
        {"kill", [] { return KillServer("victim"), std::string(); }},
        {"UNINSTALL", [] { return csAsk("UNINSTALL\tvictim\t0"); }},
        {"START", [] { return csAsk("START\tvictim"); }},
        {"REGISTER", [] { return csRegister("victim"); }},
    };
    /// What each may be answered: which of them comes first is open, and a start may meet the kill or the
    /// removal.
    const std::map<std::string, std::vector<std::string>> tRight = {
        {"kill", {""}},
        {"UNINSTALL", {"OK\r\n", "ERROR\t11\r\n"}},
        {"START", {"OK\r\n", "ERROR\t1No such file or directory\r\n", "ERROR\t2Operation canceled\r\n"}},
        {"REGISTER", {"", "Operation canceled"}},
    };
    std::map<std::string, int> tAnswers;
    long nSlowestMs = 0;
    const CBystander clBystander;

    for (int nRound = 0; nRound < nRounds; ++nRound) {
        const auto clBegin = CClock::now();
        std::vector<std::pair<std::string, std::future<std::string>>> tUnderWay;
        for (const auto& [pszWhat, fnRace] : tRacers) {
            const auto clDelay = std::chrono::milliseconds(m_clRandom() % 150);
            tUnderWay.emplace_back(pszWhat, std::async(std::launch::async, [clDelay, fnRace = fnRace] {
                                       std::this_thread::sleep_for(clDelay);
                                       return fnRace();
                                   }));
        }
        for (auto& [csWhat, clAnswer] : tUnderWay) {
            const std::string csAnswer = clAnswer.get();
            const auto& tAllowed = tRight.at(csWhat);
            EXPECT_NE(std::find(tAllowed.begin(), tAllowed.end(), csAnswer), tAllowed.end())
                << csWhat << ": " << csAnswer;
            ++tAnswers[csWhat + " " + csAnswer.substr(0, csAnswer.find('\r'))];
        }
        nSlowestMs = std::max(nSlowestMs, nMsSince(clBegin));
        if (!bRegistered("victim")) {
            EXPECT_TRUE(bWaitUntil([] { return csProcesses("victim").empty(); }, 2000))
                << "round " << nRound << ": " << csProcesses("victim");
        }
    }

    (void)csAsk("UNINSTALL\tvictim\t0");
    EXPECT_FALSE(bRegistered("victim"));
    EXPECT_EQ(csProcesses("victim"), "");
    EXPECT_LT(nSlowestMs, 20'000);
    EXPECT_LT(clBystander.nSlowestMs(), 5000);
    std::cout << "FIGURE races " << (bSystemd() ? "systemd" : "plain") << ": " << nRounds
              << " rounds, the slowest " << nSlowestMs << " ms; another server killed "
              << clBystander.nKills() << " times, back after " << clBystander.nSlowestMs() << " ms at most\n";
    for (const auto& [csAnswer, nTimes] : tAnswers) {
        std::cout << "| " << csAnswer << " | " << nTimes << " |\n";
    }
}

TEST_F(Races, ARemovalDoesNotWaitForAStartThatHangs)
{
    PutServer("victim", 4911, "", "victim");
    ASSERT_EQ(csRegister("victim"), "");
    ASSERT_EQ(bSystemd() ? stRun("systemctl stop DXCS-victim").nStatus
                         : stRun("/etc/init.d/DXCS-victim stop").nStatus,
              0);
    HangAtStart("victim");
    auto clStart = std::async(std::launch::async, [] { return csAsk("START\tvictim"); });
    ASSERT_TRUE(bWaitUntil([] { return !csProcesses("victim").empty(); }, 5000));
    const auto clBegin = CClock::now();
    EXPECT_EQ(csAsk("UNINSTALL\tvictim\t0"), "OK\r\n");
    EXPECT_LT(nMsSince(clBegin), 8000);
    EXPECT_EQ(clStart.get(), "ERROR\t2Operation canceled\r\n");
    EXPECT_FALSE(bRegistered("victim"));
    EXPECT_TRUE(bWaitUntil([] { return csProcesses("victim").empty(); }, 1000)) << csProcesses("victim");
    EXPECT_FALSE(bWaitUntil([] { return bServes(4911); }, 500));
}
