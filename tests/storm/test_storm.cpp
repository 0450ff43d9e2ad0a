// The built manager under everything at once: conversations, slow and vanishing tools, floods of questions,
// registrations, signals, a failing server, and a systemctl that is slow, fails, is killed or talks nonsense.
// At the end everything is to be where it was.
//
// VELMO_STORM_SECONDS is how long it blows (120 unless set; for a soak run the program alone with hours).

#include "ManagerWorld.h"
#include "Stacks.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <thread>

namespace {
using CClock = std::chrono::steady_clock;
constexpr unsigned short s_wPort = 4999;
constexpr int s_nUsualSeconds = 120;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool s_bSanitized = true; // memory and stacks are the sanitizer's
#else
constexpr bool s_bSanitized = false;
#endif
constexpr char s_szWeather[] = "/run/velmo/weather";
constexpr char s_szLaunches[] = "/run/velmo/launches";

/// What precedes the usual systemctl: one line in /run/velmo/weather says how it behaves.
constexpr char s_szSystemctl[] = R"(
echo >>/run/velmo/launches
read -r weather </run/velmo/weather
case $weather in
slow) [ $(($$ % 4)) != 0 ] || sleep $(cat /run/velmo/slow) ;;
fails) echo "Failed to connect to bus" >&2; exit 1 ;;
garbage) head -c 20000 /dev/urandom; exit 0 ;;
megabytes) head -c 4000000 /dev/zero | tr '\0' '='; exit 0 ;;
killed) kill -9 $$ ;;
dead) case "$*" in *ActiveState*) echo ActiveState=failed; exit 0 ;; esac ;;
esac
)";
constexpr const char* s_tWeathers[] = {"fine", "slow",      "fails",  "garbage",
                                       "fine", "megabytes", "killed", "dead"};

int nSeconds()
{
    const char* psz = std::getenv("VELMO_STORM_SECONDS");
    return psz != nullptr ? std::atoi(psz) : s_nUsualSeconds;
}

/// What happened, over all threads.
struct STCounts
{
    std::atomic<long> nConversations{0};
    std::atomic<long> nReplies{0};
    std::atomic<long> nLost{0}; ///< replies that did not come in time
    std::atomic<long> nCutOff{0};
    std::atomic<long> nQuestions{0};
    std::atomic<long> nRequests{0};
    std::atomic<long> nSignals{0};
    std::atomic<long> nNonsense{0};
};
STCounts g_stCounts;

using CRandom = std::minstd_rand;

bool bReply(const std::string& cs)
{
    for (const char* psz : {"YES\t", "STATUS\t", "OK\r\n", "ERROR\t"}) {
        if (cs.starts_with(psz) && cs.ends_with("\r\n")) {
            return true;
        }
    }
    return false;
}

/// A tool whose greeting does not come in time leaves, or it would take the greeting for its first reply.
bool bGreeted(CWireClient& clTool)
{
    ++g_stCounts.nConversations;
    if (clTool.csLine(std::chrono::seconds(3)).starts_with("HELLO ")) {
        return true;
    }
    ++g_stCounts.nLost;
    clTool.Close();
    return false;
}

void Ask(CWireClient& clTool, const std::string& csLine)
{
    const std::string cs = clTool.csAsk(csLine, std::chrono::seconds(3));
    if (bReply(cs)) {
        ++g_stCounts.nReplies;
    } else if (cs.find('<') != std::string::npos) {
        ++g_stCounts.nLost;
        clTool.Close();
    } else {
        ++g_stCounts.nNonsense;
        std::printf("nonsense: %s\n", cs.substr(0, 200).c_str());
    }
}

void Converse(CRandom& clRandom)
{
    static constexpr const char* s_tLines[] = {"INFO",
                                               "STATUS\tA",
                                               "START\tA",
                                               "CLUSTERINFO\tA",
                                               "STATUS\tnobody",
                                               "NONSENSE",
                                               "UNINSTALL\tnobody\t1",
                                               "MODE_UTF8"};
    CWireClient clTool(clRandom() % 2 == 0 ? "127.0.0.1" : "::1", s_wPort);
    if (!bGreeted(clTool)) {
        return;
    }
    for (auto n = clRandom() % 5; n > 0 && clTool.bConnected(); --n) {
        Ask(clTool, s_tLines[clRandom() % std::size(s_tLines)]);
    }
    if (clTool.bConnected() && clRandom() % 2 == 0) {
        (void)clTool.bSend("QUIT\r\n");
    }
}

void SendSlowly(CRandom&)
{
    CWireClient clTool("127.0.0.1", s_wPort);
    if (!bGreeted(clTool)) {
        return;
    }
    for (const char c : std::string("STATUS\tnobod")) {
        (void)clTool.bSend(std::string(1, c));
        ::usleep(20'000);
    }
    Ask(clTool, "y");
}

void Vanish(CRandom& clRandom)
{
    CWireClient clTool("127.0.0.1", s_wPort);
    ++g_stCounts.nCutOff;
    switch (clRandom() % 4) {
    case 0:
        (void)clTool.bSend("STAT");
        break;
    case 1:
        (void)clTool.bSend("INFO\r\n");
        break;
    case 2:
        (void)clTool.bSend(std::string(100'000, 'x'));
        break;
    default:
        break;
    }
    clTool.Reset();
}

void HoldMany(CRandom&)
{
    std::vector<CWireClient> tTools(100);
    for (CWireClient& clTool : tTools) {
        g_stCounts.nConversations += clTool.bConnect("127.0.0.1", s_wPort) ? 1 : 0;
    }
    (void)tTools.back().bSilent(std::chrono::milliseconds(500));
}

void Flood(CRandom& clRandom)
{
    CPingClient clTool;
    for (int n = 0; n < 50; ++n) {
        const char* const tQuestions[] = {"ARE YOU A DEXARO MANAGER UTF-8?\r\n",
                                          "ARE YOU A DEXARO SERVER SETUP?\r\n", "", "ARE WE?",
                                          "ARE YOU A DEXARO MANAGER UTF-8?\r\n and more than that"};
        (void)clTool.Ask(clRandom() % 2 == 0 ? "127.0.0.1" : "::1", s_wPort,
                         tQuestions[clRandom() % std::size(tQuestions)]);
        ++g_stCounts.nQuestions;
    }
    (void)clTool.csAnswer(1000);
}

void Register(CRandom& clRandom)
{
    const CReplyPipe clReply(::getpid());
    std::string csBytes = csRequest(::getpid(), static_cast<int>(clRandom() % 4),
                                    clRandom() % 2 == 0 ? "A" : "B", CManagerWorld::Server, 4900);
    if (clRandom() % 5 == 0) {
        csBytes.resize(clRandom() % 790 + 1);
    }
    ++g_stCounts.nRequests;
    (void)bWritePipe(CManagerWorld::Pipe, csBytes);
    (void)clReply.csReply(1000);
}

void Signal(pid_t nManager, CRandom& clRandom)
{
    static constexpr int s_tSignals[] = {SIGCHLD, SIGPIPE, SIGWINCH, SIGCHLD, SIGSTOP};
    const int nSignal = s_tSignals[clRandom() % std::size(s_tSignals)];
    ::kill(nManager, nSignal);
    ::usleep(10'000);
    ::kill(nManager, SIGCONT);
    ++g_stCounts.nSignals;
}

void ChangeWeather(CRandom& clRandom)
{
    std::ofstream(std::string(s_szWeather) + ".new")
        << s_tWeathers[clRandom() % std::size(s_tWeathers)] << "\n";
    std::filesystem::rename(std::string(s_szWeather) + ".new", s_szWeather);
    ::usleep(1'000'000);
}

/// Lets everything loose for a time.
void Blow(pid_t nManager, int nForSeconds, CStackDepths* pclStacks)
{
    const std::function<void(CRandom&)> tActions[] = {
        Converse,      Converse,
        Converse,      SendSlowly,
        Vanish,        HoldMany,
        Flood,         Register,
        ChangeWeather, [nManager](CRandom& clRandom) { Signal(nManager, clRandom); },
    };
    const auto clEnd = CClock::now() + std::chrono::seconds(nForSeconds);
    std::vector<std::thread> tThreads;
    for (const auto& fnAction : tActions) {
        tThreads.emplace_back([&fnAction, clEnd, nSeed = tThreads.size() + 1] {
            for (CRandom clRandom(static_cast<unsigned int>(nSeed)); CClock::now() < clEnd;) {
                fnAction(clRandom);
            }
        });
    }
    while (CClock::now() < clEnd) {
        pclStacks->Look();
        ::usleep(100'000);
    }
    for (std::thread& clThread : tThreads) {
        clThread.join();
    }
    std::ofstream(s_szWeather) << "fine\n";
}

/// Prints the figures; returns what is resident beside the stacks: the programs and the heap, in KiB.
long nPrint(const char* pszWhen, const STFigures& st, const CStackDepths& clStacks)
{
    const long nStacksKb = clStacks.nResidentKb();
    std::printf("%s: %d descriptors, %d threads, %d children, %ld KiB resident, of these %ld of stacks\n",
                pszWhen, st.nDescriptors, st.nThreads, st.nChildren, st.nResidentKb, nStacksKb);
    return st.nResidentKb - nStacksKb;
}
} // namespace

TEST(Storm, LeavesEverythingWhereItWas)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld("", s_szSystemctl);
    std::ofstream(s_szWeather) << "fine\n";
    std::ofstream("/run/velmo/slow") << (nSeconds() > 600 ? 30 : 3) << "\n";
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    const STFigures stStart = clManager.stSettled({}, 500);
    CStackDepths clStacks(clManager.nPid());
    (void)nPrint("at the start", stStart, clStacks);
    // The first part makes the heap as large as it gets; a leak goes on growing in the second.
    Blow(clManager.nPid(), nSeconds() / 3, &clStacks);
    const STFigures stMiddle = clManager.stSettled(stStart, 120'000);
    const long nMiddleKb = nPrint("after a third", stMiddle, clStacks);
    Blow(clManager.nPid(), nSeconds() - nSeconds() / 3, &clStacks);
    const STFigures stEnd = clManager.stSettled(stStart, 120'000);
    const long nEndKb = nPrint("at the end", stEnd, clStacks);
    std::printf(
        "%ld conversations, %ld replies, %ld not in time, %ld cut off, %ld questions, %ld requests, %ld "
        "signals, %ju launches\n",
        g_stCounts.nConversations.load(), g_stCounts.nReplies.load(), g_stCounts.nLost.load(),
        g_stCounts.nCutOff.load(), g_stCounts.nQuestions.load(), g_stCounts.nRequests.load(),
        g_stCounts.nSignals.load(), std::filesystem::file_size(s_szLaunches));

    constexpr unsigned long nDeepestKb = 40; // of 64, in whole pages: more than a third is to spare
    for (const auto& [csKind, nKb] : clStacks.tDepthKb()) {
        std::printf("stack of %s: %lu KiB\n", csKind.c_str(), nKb);
        EXPECT_TRUE(s_bSanitized || nKb <= nDeepestKb) << csKind;
    }
    EXPECT_TRUE(clManager.bRuns());
    EXPECT_LE(stEnd.nDescriptors, stStart.nDescriptors);
    EXPECT_LE(stEnd.nThreads, stStart.nThreads);
    EXPECT_EQ(stEnd.nChildren, 0);
    constexpr long nByChanceKb = 4096; // by how the blocks that outlive a burst lie in the heap
    EXPECT_TRUE(s_bSanitized || nEndKb <= nMiddleKb + nByChanceKb);
    EXPECT_EQ(g_stCounts.nNonsense, 0);
    EXPECT_GT(g_stCounts.nReplies, 20);
    std::string csWrong;
    EXPECT_TRUE(bWaitUntil([&] { return (csWrong = csPlay(true)).empty(); }, 60'000)) << csWrong;
    EXPECT_EQ(clManager.csStop(), "exit 0");
    EXPECT_EQ(CManagerWorld::csDamage(), "");
}
