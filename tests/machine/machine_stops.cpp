// The manager as a service of a real systemd, whose systemctl is slow: stops in the middle of everything, and
// more questions than can be answered one by one.

#include "MachineTest.h"
#include "tools/PingClient.h"

#include <algorithm>
#include <functional>
#include <future>
#include <iostream>
#include <thread>
#include <vector>

namespace {
/// Seconds that every systemctl of the manager takes from now on; the calls are noted in /run/calls.
void SetSlow(const char* pszSeconds)
{
    std::ofstream("/run/calls");
    std::ofstream("/run/slow") << pszSeconds << "\n";
}

int nCalls(const std::string& csWhat)
{
    return std::atoi(csOutput("grep -ce '" + csWhat + "' /run/calls").c_str());
}

/// What a discovery over UDP comes to.
std::string csDiscover(int nMs)
{
    CPingClient clAsker;
    (void)clAsker.Ask("127.0.0.1", 4999, "");
    return clAsker.csAnswer(nMs);
}

class SlowTools : public CMachineTest
{
protected:
    void SetUp() override
    {
        stRun("mv /bin/systemctl /bin/systemctl.real");
        std::ofstream("/bin/systemctl") << "#!/bin/sh\necho \"$*\" >>/run/calls\n"
                                           "[ $(cat /run/slow) = 0 ] || sleep $(cat /run/slow)\n"
                                           "exec /bin/systemctl.real \"$@\"\n";
        stRun("chmod 755 /bin/systemctl");
        SetSlow("0");
    }
    void TearDown() override
    {
        stRun("mv /bin/systemctl.real /bin/systemctl; systemctl stop VelmoManager; rm -r "
              "/etc/systemd/system/VelmoManager.service.d");
        CMachineTest::TearDown();
    }
    static void Install(int nServers, const std::string& csSettings)
    {
        for (int n = 1; n <= nServers; ++n) {
            AddServer("s" + std::to_string(n), "DXCS-s" + std::to_string(n), 4900 + n, "");
        }
        // The limit on starts is not what is tried here.
        fs::create_directories("/etc/systemd/system/VelmoManager.service.d");
        std::ofstream("/etc/systemd/system/VelmoManager.service.d/x.conf")
            << "[Unit]\nStartLimitIntervalSec=0\n";
        stRun("systemctl.real daemon-reload; cd /lib/systemd/system; systemctl.real start DXCS-s*");
        PutManager("manager", csSettings);
        ASSERT_EQ(stRun("/opt/velmo/manager/VelmoManager").nStatus, 0);
    }
};

/// A question, and a call of the tools that it needs.
struct STQuestion
{
    const char* pszWhat;
    std::function<std::string()> fnAsk;
    const char* pszCall;  ///< in which the stop comes
    bool bAlwaysAnswered; ///< with quick tools, alone, on a machine that is not too busy
};
const STQuestion s_tQuestions[] = {
    {"INFO", [] { return csAsk("INFO"); }, "list-units", true},
    {"discovery", [] { return csDiscover(100); }, "list-units", false},
    {"registration", [] { return stRun("timeout 3 /opt/velmo/new/dxdemo --REGISTER").csOutput; },
     "list-units", false},
    {"START", [] { return csAsk("START\ts1"); }, "DXCS-s1", true},
    {"monitor pass", [] { return std::string(); }, "list-units", false},
};

class Stops : public SlowTools
{
protected:
    /// One stop, some milliseconds after the question has reached the tools.
    void StopDuring(const STQuestion& st, const char* pszSlow, int nAtOnce, std::chrono::milliseconds clLater)
    {
        SetSlow("0");
        ASSERT_EQ(stRun("systemctl.real start VelmoManager").nStatus, 0);
        ASSERT_TRUE(bWaitUntil([] { return bWritePipe(g_szFifo, ""); }, 5000));
        SetSlow(pszSlow);
        std::vector<std::future<std::string>> tAnswers;
        for (int n = 0; n < nAtOnce; ++n) {
            tAnswers.push_back(std::async(std::launch::async, st.fnAsk));
        }
        EXPECT_TRUE(bWaitUntil([&] { return nCalls(st.pszCall) > 0; }, 5000));
        std::this_thread::sleep_for(clLater);

        const auto clBegin = CClock::now();
        EXPECT_EQ(stRun("systemctl.real stop VelmoManager").nStatus, 0);
        m_nSlowestMs = std::max(m_nSlowestMs, nMsSince(clBegin));
        EXPECT_LT(nMsSince(clBegin), 2000);
        EXPECT_FALSE(fs::exists(g_szFifo) || fs::exists("/run/VelmoManager.pid"));
        EXPECT_EQ(csOutput("systemctl.real show --value -p Result VelmoManager"), "success");
        const bool bMust = m_bInTime && st.bAlwaysAnswered && nAtOnce == 1 && pszSlow == std::string("0.06");
        for (auto& clAnswer : tAnswers) {
            const std::string csAnswer = clAnswer.get();
            const bool bRight =
                csAnswer == "OK\r\n" || csAnswer.find("\ts1\t4901\ts2\t") != std::string::npos;
            m_nAnswered += bRight ? 1 : 0;
            const bool bRefused = csAnswer.empty() || csAnswer.front() == '<' ||
                                  csAnswer.find("Operation canceled") != std::string::npos ||
                                  csAnswer.find("anager") != std::string::npos;
            EXPECT_TRUE(bRight || (bRefused && !bMust)) << csAnswer;
        }
    }
    bool m_bInTime = false;
    long m_nSlowestMs = 0;
    int m_nAnswered = 0;
};
using Floods = SlowTools;
} // namespace

TEST_F(Stops, EndInTimeAndLeaveNothingWhateverTheyMeet)
{
    Install(2, "CheckPeriod=1\n");
    AddServer("fails", "DXCS-fails", 4990, "FailAtStart=1\n");
    PutServer("new", 4991, "", "new");
    stRun("systemctl.real daemon-reload; systemctl.real start DXCS-fails");
    // On a busy machine half a second may not do.
    SetSlow("0.06");
    const auto clUnhurried = CClock::now();
    ASSERT_THAT(csAsk("INFO"), HasSubstr("\ts1\t4901"));
    m_bInTime = nMsSince(clUnhurried) < 350;
    SetSlow("0");
    stRun("systemctl.real stop VelmoManager");

    const int nTimes = bLong() ? 50 : 1;
    std::cout << "| stop during | tools of | at once | stops | slowest, ms | answered |\n";
    for (const STQuestion& st : s_tQuestions) {
        for (const char* pszSlow : {"0.06", "0.5", "60"}) {
            for (const int nAtOnce : {1, 10}) {
                SCOPED_TRACE(std::string(st.pszWhat) + " " + pszSlow);
                m_nSlowestMs = m_nAnswered = 0;
                for (int nTime = 0; nTime < nTimes; ++nTime) {
                    ASSERT_NO_FATAL_FAILURE(StopDuring(st, pszSlow, nAtOnce, nTime * 7 % 40 * 1ms));
                }
                std::cout << "| " << st.pszWhat << " | " << pszSlow << " s | " << nAtOnce << " | " << nTimes
                          << " | " << m_nSlowestMs << " | " << m_nAnswered << " |\n";
            }
        }
    }
}

TEST_F(Floods, ManyListsAtOnceNeedThreeListingsAndAFloodOfDatagramsDelaysNoAnswer)
{
    Install(20, "RestartOnFailed=0\n");
    std::vector<CWireClient> tTools(200);
    for (CWireClient& clTool : tTools) {
        ASSERT_TRUE(clTool.bConnect("127.0.0.1", 4999));
        ASSERT_EQ(clTool.csLine(), g_szHello);
    }
    SetSlow("0.5");
    for (CWireClient& clTool : tTools) {
        ASSERT_TRUE(clTool.bSend("INFO\r\n"));
    }
    for (CWireClient& clTool : tTools) {
        EXPECT_THAT(clTool.csLine(60s), HasSubstr("\ts20\t4920"));
        clTool.Reset();
    }
    EXPECT_LE(nCalls("list-units"), 3);
    std::cout << "FIGURE 200 INFO at once, 20 servers, tools of 0.5 s: " << nCalls("list-units")
              << " listings\n";
    stRun("mv /bin/systemctl.real /bin/systemctl"); // the real one, which is quicker

    // Questions as fast as one thread can send them, at most 10^5 a second.
    const auto clSeconds = bLong() ? 10s : 2s;
    const auto clBegin = CClock::now();
    long nSent = 0;
    CPingClient clFlooder;
    ASSERT_TRUE(clFlooder.Ask("127.0.0.1", 4999, "ARE YOU"));
    for (; CClock::now() - clBegin < clSeconds; ++nSent) {
        if (nSent > 100 * nMsSince(clBegin)) {
            std::this_thread::sleep_for(1ms);
        }
        (void)clFlooder.AskAgain("127.0.0.1", 4999, nSent % 2 == 0 ? "ARE YOU" : "no question");
    }
    const auto clAsked = CClock::now();
    // Asked again as tools do: what arrives while the kernel's buffer is still full is lost.
    std::string csAnswer;
    for (int n = 0; n < 4 && csAnswer.find("\ts20\t4920") == std::string::npos; ++n) {
        csAnswer = csDiscover(500);
    }
    EXPECT_THAT(csAnswer, HasSubstr("\ts20\t4920"));
    EXPECT_LT(nMsSince(clAsked), 2000);
    std::cout << "FIGURE " << nSent << " datagrams in " << clSeconds.count()
              << " s, 20 servers; the next question answered after " << nMsSince(clAsked) << " ms\n";
}
