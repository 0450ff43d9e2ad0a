// The built manager under everything at once: conversations, slow and vanishing tools, floods of questions,
// registrations, signals, a failing server, and a systemctl that is slow, fails, is killed or talks nonsense.
// At the end everything is to be where it was.
//
// VELMO_STORM_SECONDS is how long it blows (60 unless set; for a soak run the program alone with hours).

#include "ManagerWorld.h"
#include "tools/PingClient.h"
#include "tools/PipeClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <algorithm>
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
constexpr char s_szWeather[] = "/run/velmo/weather";

/// What precedes the usual systemctl: one line in /run/velmo/weather says how it behaves.
constexpr char s_szSystemctl[] = R"(
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

/// What happened, over all threads.
std::atomic<long> g_nConversations{0};
std::atomic<long> g_nReplies{0};
std::atomic<long> g_nLost{0}; ///< replies that did not come in time
std::atomic<long> g_nNonsense{0};

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
    ++g_nConversations;
    if (clTool.csLine(std::chrono::seconds(3)).starts_with("HELLO ")) {
        return true;
    }
    ++g_nLost;
    clTool.Close();
    return false;
}

void Ask(CWireClient& clTool, const std::string& csLine)
{
    const std::string cs = clTool.csAsk(csLine, std::chrono::seconds(3));
    if (bReply(cs)) {
        ++g_nReplies;
    } else if (cs.find('<') != std::string::npos) {
        ++g_nLost;
        clTool.Close();
    } else {
        ++g_nNonsense;
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
    static const std::string s_tBeginnings[] = {"", "STAT", "INFO\r\n", std::string(100'000, 'x')};
    CWireClient clTool("127.0.0.1", s_wPort);
    (void)clTool.bSend(s_tBeginnings[clRandom() % std::size(s_tBeginnings)]);
    clTool.Reset();
}

void HoldMany(CRandom&)
{
    std::vector<CWireClient> tTools(100);
    for (CWireClient& clTool : tTools) {
        g_nConversations += clTool.bConnect("127.0.0.1", s_wPort) ? 1 : 0;
    }
    (void)tTools.back().bSilent(std::chrono::milliseconds(500));
}

void Flood(CRandom& clRandom)
{
    static constexpr const char* s_tQuestions[] = {"ARE YOU A DEXARO MANAGER UTF-8?\r\n",
                                                   "ARE YOU A DEXARO SERVER SETUP?\r\n", "", "ARE WE?",
                                                   "ARE YOU A DEXARO MANAGER UTF-8?\r\n and more than that"};
    CPingClient clTool;
    for (int n = 0; n < 50; ++n) {
        (void)clTool.Ask(clRandom() % 2 == 0 ? "127.0.0.1" : "::1", s_wPort,
                         s_tQuestions[clRandom() % std::size(s_tQuestions)]);
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
}

void ChangeWeather(CRandom& clRandom)
{
    std::ofstream(std::string(s_szWeather) + ".new")
        << s_tWeathers[clRandom() % std::size(s_tWeathers)] << "\n";
    std::filesystem::rename(std::string(s_szWeather) + ".new", s_szWeather);
    ::usleep(1'000'000);
}

/// Lets everything loose for a time; returns how deep the stacks have been meanwhile, in KiB.
long nBlow(pid_t nManager, int nForSeconds)
{
    const auto fnSignal = [nManager](CRandom& clRandom) { Signal(nManager, clRandom); };
    const std::function<void(CRandom&)> tActions[] = {Converse, Converse, Converse, SendSlowly,    Vanish,
                                                      HoldMany, Flood,    Register, ChangeWeather, fnSignal};
    const auto clEnd = CClock::now() + std::chrono::seconds(nForSeconds);
    std::vector<std::jthread> tThreads;
    for (const auto& fnAction : tActions) {
        tThreads.emplace_back([&fnAction, clEnd, nSeed = tThreads.size() + 1] {
            for (CRandom clRandom(static_cast<unsigned int>(nSeed)); CClock::now() < clEnd;) {
                fnAction(clRandom);
            }
        });
    }
    long nDeepest = 0;
    while (CClock::now() < clEnd) {
        nDeepest = std::max(nDeepest, stMemoryOf(nManager).nDeepest);
        ::usleep(100'000);
    }
    tThreads.clear();
    std::ofstream(s_szWeather) << "fine\n";
    return nDeepest;
}

/// Prints what the manager uses; returns its memory beside the stacks, in KiB.
long nPrint(const char* pszWhen, pid_t nManager)
{
    const STFigures st = stFiguresOf(nManager);
    const STMemory stUsed = stMemoryOf(nManager);
    std::printf("%s: %d descriptors, %d threads, %ld KiB of stacks, %ld KiB else\n", pszWhen, st.nDescriptors,
                st.nThreads, stUsed.nStacks, stUsed.nElse);
    return stUsed.nElse;
}
} // namespace

TEST(Storm, LeavesEverythingWhereItWas)
{
    REQUIRE_PRIVATE_WORLD();
    const char* const pszSeconds = std::getenv("VELMO_STORM_SECONDS");
    const int nSeconds = pszSeconds != nullptr ? std::atoi(pszSeconds) : 60;
    const CManagerWorld clWorld(s_szSystemctl);
    std::ofstream(s_szWeather) << "fine\n";
    std::ofstream("/run/velmo/slow") << (nSeconds > 600 ? 30 : 3) << "\n";
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    ::usleep(500'000); // the last thread is on its way
    const STFigures stStart = stFiguresOf(clManager.nPid());
    (void)nPrint("at the start", clManager.nPid());
    // The first part makes the heap as large as it gets; a leak goes on growing in the second.
    long nDeepestKb = nBlow(clManager.nPid(), nSeconds / 3);
    ExpectNothingLeft(clManager.nPid(), stStart, 120'000);
    const long nMiddleKb = nPrint("after a third", clManager.nPid());
    nDeepestKb = std::max(nDeepestKb, nBlow(clManager.nPid(), nSeconds - nSeconds / 3));
    ExpectNothingLeft(clManager.nPid(), stStart, 120'000);
    const long nEndKb = nPrint("at the end", clManager.nPid());
    std::printf("%ld conversations, %ld replies, %ld not in time; deepest stack: %ld KiB\n",
                g_nConversations.load(), g_nReplies.load(), g_nLost.load(), nDeepestKb);

    EXPECT_TRUE(g_bSanitized || nDeepestKb <= 40) << "of 64, in whole pages: more than a third is to spare";
    EXPECT_TRUE(clManager.bRuns());
    constexpr long nByChanceKb = 4096; // by how the blocks that outlive a burst lie in the heap
    EXPECT_TRUE(g_bSanitized || nEndKb <= nMiddleKb + nByChanceKb);
    EXPECT_EQ(g_nNonsense, 0);
    EXPECT_GT(g_nReplies, 20);
    std::string csWrong;
    EXPECT_TRUE(bWaitUntil([&] { return (csWrong = csPlay(true)).empty(); }, 60'000)) << csWrong;
    EXPECT_EQ(clManager.nStop(), 0);
    EXPECT_EQ(CManagerWorld::csDamage(), "");
}
