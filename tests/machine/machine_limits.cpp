// What the manager costs and survives at its limits, in a machine with a real systemd: memory beside lines
// and settings files without end, and its port right after conversations. With VELMO_LONG the whole of it.

#include "tools/Command.h"
#include "tools/Machine.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <memory>
#include <thread>
#include <vector>

namespace {
using Clock = std::chrono::steady_clock;

constexpr long s_nMaxKiB = 32L * 1024; ///< peak of resident memory

bool bLong()
{
    return std::getenv("VELMO_LONG") != nullptr;
}

long nMs(Clock::time_point clStart)
{
    return (Clock::now() - clStart) / std::chrono::milliseconds(1);
}

/// A manager in the foreground beside one server.
class Memory : public ::testing::Test
{
protected:
    void SetUp() override
    {
        AddServer("run", "DXCS-run", 4911, "");
        stRun("systemctl daemon-reload; systemctl start DXCS-run");
        m_pclManager = std::make_unique<CManagerProcess>();
        ASSERT_TRUE(m_pclManager->bAnswers());
        ASSERT_TRUE(m_clTool.bConnect("127.0.0.1", 4999));
        ASSERT_TRUE(m_clTool.csLine().starts_with("HELLO"));
        ASSERT_TRUE(m_clTool.csAsk("INFO").starts_with("YES"));
    }
    void TearDown() override
    {
        m_pclManager.reset();
        RemoveServices();
    }
    /// KiB: what the manager holds now ("VmRSS"), and held at most ("VmHWM").
    long nMemory(const char* pszField) const
    {
        return std::atol(stRun("sed -n 's/^" + std::string(pszField) + ":[[:space:]]*//p' /proc/" +
                               std::to_string(m_pclManager->nPid()) + "/status")
                             .csOutput.c_str());
    }
    std::unique_ptr<CManagerProcess> m_pclManager;
    CWireClient m_clTool; ///< greeted
};

/// Sends one line of so many bytes; true when its reply is right.
bool bLongLine(std::size_t nBytes)
{
    constexpr std::chrono::seconds clSlow{60};
    const std::string csPart(1 << 20, 'x');
    CWireClient clTool("127.0.0.1", 4999);
    bool bSent = clTool.csLine().starts_with("HELLO") && clTool.bSend("STATUS\trun\t");
    for (std::size_t n = 0; bSent && n < nBytes; n += csPart.size()) {
        bSent = clTool.bSend(csPart, clSlow);
    }
    return bSent && clTool.bSend("\r\n") && clTool.csLine(clSlow) == "STATUS\tRUNNING\r\n";
}
} // namespace

TEST_F(Memory, LinesWithoutEndCostNothingAndHoldNobodyUp)
{
    const std::size_t nBytes = bLong() ? std::size_t{1} << 30 : std::size_t{32} << 20;
    const long nBefore = nMemory("VmRSS");
    for (const int nTools : {1, 10}) {
        std::atomic<int> nRight{0};
        std::atomic<int> nEnded{0};
        std::vector<std::thread> tTools;
        for (int n = 0; n < nTools; ++n) {
            tTools.emplace_back([&] {
                nRight += bLongLine(nBytes) ? 1 : 0;
                ++nEnded;
            });
        }
        const auto clStart = Clock::now();
        long nSlowest = 0;
        while (nEnded < nTools) {
            const auto clAsked = Clock::now();
            EXPECT_EQ(m_clTool.csAsk("STATUS\trun"), "STATUS\tRUNNING\r\n");
            nSlowest = std::max(nSlowest, nMs(clAsked));
        }
        for (std::thread& clTool : tTools) {
            clTool.join();
        }
        EXPECT_EQ(nRight, nTools);
        std::printf("FIGURE %d lines of %zu MiB at once: %ld ms, peak %ld KiB, another tool's STATUS at most "
                    "%ld ms\n",
                    nTools, nBytes >> 20, nMs(clStart), nMemory("VmHWM"), nSlowest);
    }
    EXPECT_LT(nMemory("VmHWM"), s_nMaxKiB);
    EXPECT_LT(nMemory("VmRSS"), nBefore + 2048) << "what the lines took is given back";
}

TEST_F(Memory, ALineIsGivenBackWhileItsToolStays)
{
    std::vector<std::unique_ptr<CWireClient>> tTools;
    for (int n = 0; n < 50; ++n) {
        tTools.push_back(std::make_unique<CWireClient>("127.0.0.1", 4999));
        ASSERT_TRUE(tTools.back()->csLine().starts_with("HELLO"));
    }
    const long nBefore = nMemory("VmRSS");
    for (const auto& pclTool : tTools) {
        EXPECT_EQ(pclTool->csAsk(std::string(100'000, 'x')), "ERROR\t8\r\n");
    }
    EXPECT_LT(nMemory("VmRSS"), nBefore + 2048);
}

TEST_F(Memory, SettingsFilesWithoutEndCostNothingAndHoldNobodyUp)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"cd /opt/velmo/run && rm DXConf.ini && truncate -s 3G DXConf.ini", "4900"}, // one line, too
        {"cd /opt/velmo/run && truncate -s 500M DXConf.ini", "4900"},
        {"cd /opt/velmo/run && truncate -s 16M DXConf.ini", "4900"},
        {"cd /opt/velmo/run && truncate -s 15M DXConf.ini && printf '\\n[INIT]\\nAccessPort=4912\\n' "
         ">>DXConf.ini",
         "4912"},
    };
    for (const auto& [pszMake, pszPort] : tCases) {
        SCOPED_TRACE(pszMake);
        ASSERT_EQ(stRun(pszMake).nStatus, 0);
        const auto clStart = Clock::now();
        EXPECT_TRUE(m_clTool.csAsk("INFO").ends_with("\trun\t" + std::string(pszPort) + "\r\n"));
        EXPECT_TRUE(m_clTool.csAsk("CLUSTERINFO\trun") == "YES\t0\t\r\n");
        EXPECT_LT(nMs(clStart), 1000);
    }
    stRun("journalctl --sync");
    EXPECT_EQ(
        stRun("journalctl -b -t VelmoManager -o cat | grep -c 'DXConf.ini is larger than 16 MiB'").csOutput,
        "1\n");
    std::printf("FIGURE settings files of 3 GB and of lines of 500 MB: peak %ld KiB\n", nMemory("VmHWM"));
    EXPECT_LT(nMemory("VmHWM"), s_nMaxKiB);
}

namespace {
/// The installed manager, under systemd.
class Restarts : public ::testing::Test
{
protected:
    void SetUp() override
    {
        PutManager("manager", "RestartOnFailed=0\n");
        ASSERT_EQ(stRun("cd / && /opt/velmo/manager/VelmoManager").nStatus, 0);
    }
    void TearDown() override { RemoveServices(); }
    static bool bGreets() { return CWireClient("127.0.0.1", 4999).csLine().starts_with("HELLO"); }
    /// So many starts in a row would be a failure otherwise.
    static void ResetStarts() { stRun("systemctl reset-failed VelmoManager"); }
};
} // namespace

TEST_F(Restarts, RightAfterAConversation)
{
    const int nRounds = bLong() ? 200 : 10;
    long nSlowest = 0;
    for (int n = 0; n < nRounds; ++n) {
        SCOPED_TRACE(n);
        ResetStarts();
        CWireClient clHalfClosed("127.0.0.1", 4999); // the manager hangs up first on both
        CWireClient clQuits("127.0.0.1", 4999);
        ASSERT_TRUE(clHalfClosed.csLine().starts_with("HELLO") && clQuits.csLine().starts_with("HELLO"));
        ASSERT_TRUE(clQuits.bSend("QUIT\r\n") && clQuits.bClosed());
        const auto clStart = Clock::now();
        ASSERT_EQ(stRun("systemctl restart VelmoManager").nStatus, 0);
        ASSERT_TRUE(bGreets());
        nSlowest = std::max(nSlowest, nMs(clStart));
    }
    std::printf("FIGURE %d restarts after conversations: %ld ms at most until the next greeting\n", nRounds,
                nSlowest);
    EXPECT_LT(nSlowest, 1000);
}

TEST_F(Restarts, AfterAKillWithFiftyToolsConnected)
{
    const int nRounds = bLong() ? 20 : 3;
    long nSlowest = 0;
    std::vector<std::unique_ptr<CWireClient>> tTools;
    for (int n = 0; n < nRounds; ++n) {
        SCOPED_TRACE(n);
        ResetStarts();
        tTools.clear();
        for (int nTool = 0; nTool < 50; ++nTool) {
            tTools.push_back(std::make_unique<CWireClient>("127.0.0.1", 4999));
            ASSERT_TRUE(tTools.back()->csLine().starts_with("HELLO"));
        }
        const pid_t nPid = std::atoi(stRun("cat /run/VelmoManager.pid").csOutput.c_str());
        const auto clStart = Clock::now();
        ASSERT_EQ(::kill(nPid, SIGKILL), 0);
        ASSERT_TRUE(tTools[0]->bClosed());
        ASSERT_TRUE(bWaitUntil([] { return bGreets(); }, 10'000));
        nSlowest = std::max(nSlowest, nMs(clStart));
    }
    std::printf("FIGURE %d kills with 50 tools connected: %ld ms at most until the next greeting\n", nRounds,
                nSlowest);
    EXPECT_LT(nSlowest, 2000);
}
