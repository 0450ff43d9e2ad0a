// One server is killed, removed, started and registered at the same time, again and again, in a machine with
// a real systemd and in one without any service manager. Another server that is killed meanwhile, and one
// that hangs at its start, show that nobody is held up.

#include "MachineTest.h"

#include <algorithm>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <random>
#include <thread>

namespace {
/// From its next start on.
void HangAtStart(const std::string& csFolder)
{
    std::ofstream("/opt/velmo/" + csFolder + "/DXConf.ini", std::ios::app) << "StartDelay=600000\n";
}

void KillServer(const std::string& csName)
{
    stRun("kill -9 $(cat /run/DXCS-" + csName + ".pid)");
}

bool bRegistered(const std::string& csName)
{
    return fs::exists("/lib/systemd/system/DXCS-" + csName + ".service") ||
           fs::exists("/etc/init.d/DXCS-" + csName);
}

/// Processes of a server, and tools that act on it.
std::string csProcesses(const std::string& csName)
{
    return csOutput("pgrep -af '(dxdemo --SERVICE|systemctl .*) DXCS-" + csName + "( |$)'");
}

/// Kills a server every few seconds and notes how long it takes until it serves again.
class CBystander
{
public:
    CBystander() : m_clThread([this] { _Run(); }) {}
    ~CBystander()
    {
        m_bEnd = true;
        m_clThread.join();
    }
    long nSlowestMs() const { return m_nSlowestMs; }
    int nKills() const { return m_nKills; }

private:
    void _Run()
    {
        while (!m_bEnd) {
            const pid_t nBefore = nPidOf("DXCS-bystander"); // another one may serve before we look
            KillServer("bystander");
            ++m_nKills;
            const auto clKilled = CClock::now();
            EXPECT_TRUE(
                bWaitUntil([&] { return nPidOf("DXCS-bystander") != nBefore && bServes(4912); }, 20'000));
            m_nSlowestMs = std::max<long>(m_nSlowestMs, nMsSince(clKilled));
            std::this_thread::sleep_for(1s);
        }
    }
    std::atomic<bool> m_bEnd{false};
    std::atomic<long> m_nSlowestMs{0};
    std::atomic<int> m_nKills{0};
    std::thread m_clThread;
};

class Races : public CMachineTest
{
protected:
    void SetUp() override
    {
        if (bSystemd()) { // its limit on starts is not what is tried here
            fs::create_directories("/etc/systemd/system.conf.d");
            std::ofstream("/etc/systemd/system.conf.d/x.conf")
                << "[Manager]\nDefaultStartLimitBurst=1000000\n";
            stRun("systemctl daemon-reexec");
        }
        ASSERT_NO_FATAL_FAILURE(StartManager("CheckPeriod=1\n"));
        for (const auto& [pszName, nPort] : {std::pair{"bystander", 4912}, {"hangs", 4913}}) {
            PutServer(pszName, nPort, "", pszName);
            ASSERT_EQ(csRegisterItself(pszName), "");
        }
        PutServer("victim", 4911, "", "victim");
        // The manager is to bring them back, not systemd; the next start of one hangs.
        stRun("sed -i /^Restart/d /lib/systemd/system/DXCS-*; systemctl daemon-reload");
        HangAtStart("hangs");
        KillServer("hangs");
        ASSERT_TRUE(bWaitUntil([] { return !csProcesses("hangs").empty(); }, 10'000));
    }
    void TearDown() override
    {
        m_pclManager.reset();
        stRun("pkill -9 dxdemo");
        CMachineTest::TearDown();
    }
};

/// What happens to the server all at once, and what each may be answered: which of them comes first is open,
/// and a start may meet the kill or the removal.
struct STRacer
{
    const char* pszWhat;
    std::function<std::string()> fnRace;
    std::vector<std::string> tMay;
};
const STRacer s_tRacers[] = {
    {"kill", [] { return KillServer("victim"), std::string(); }, {""}},
    {"UNINSTALL", [] { return csAsk("UNINSTALL\tvictim\t0"); }, {"OK\r\n", "ERROR\t11\r\n"}},
    {"START", [] { return csAsk("START\tvictim"); }, {"OK\r\n", g_szNone, "ERROR\t2Operation canceled\r\n"}},
    {"REGISTER", [] { return csRegisterItself("victim"); }, {"", "Operation canceled"}},
};
} // namespace

TEST_F(Races, NoProcessWithoutAServiceNoHangingToolAndNoWrongAnswer)
{
    const int nRounds = bLong() ? 500 : 25;
    std::mt19937 clRandom{20261121};
    std::map<std::string, int> tAnswers;
    long nSlowestMs = 0;
    const CBystander clBystander;

    for (int nRound = 0; nRound < nRounds; ++nRound) {
        SCOPED_TRACE(nRound);
        const auto clBegin = CClock::now();
        std::vector<std::future<std::string>> tUnderWay;
        for (const STRacer& st : s_tRacers) {
            tUnderWay.push_back(std::async(std::launch::async, [&st, clDelay = clRandom() % 150 * 1ms] {
                std::this_thread::sleep_for(clDelay);
                return st.fnRace();
            }));
        }
        for (std::size_t n = 0; n < tUnderWay.size(); ++n) {
            const STRacer& st = s_tRacers[n];
            const std::string csAnswer = tUnderWay[n].get();
            EXPECT_THAT(st.tMay, ::testing::Contains(csAnswer)) << st.pszWhat;
            ++tAnswers[st.pszWhat + (" " + csAnswer.substr(0, csAnswer.find('\r')))];
        }
        nSlowestMs = std::max(nSlowestMs, nMsSince(clBegin));
        if (!bRegistered("victim")) {
            EXPECT_TRUE(bWaitUntil([] { return csProcesses("victim").empty(); }, 2000))
                << csProcesses("victim");
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
    ASSERT_EQ(csRegisterItself("victim"), "");
    ASSERT_EQ(stRun(bSystemd() ? "systemctl stop DXCS-victim" : "/etc/init.d/DXCS-victim stop").nStatus, 0);
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
