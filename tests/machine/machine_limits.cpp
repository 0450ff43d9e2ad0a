// What the manager costs and survives at its limits, in a machine with a real systemd: memory beside lines
// and settings files without end, and its port right after conversations. With VELMO_LONG the whole of it.

#include "MachineTest.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <thread>
#include <vector>

namespace {
constexpr long s_nMaxKiB = 32L * 1024; ///< peak of resident memory

/// A manager in the foreground beside one server.
class Memory : public CMachineTest
{
protected:
    void SetUp() override
    {
        AddServer("run", "DXCS-run", 4911, "");
        stRun("systemctl daemon-reload; systemctl start DXCS-run");
        ASSERT_NO_FATAL_FAILURE(StartManager(""));
        ASSERT_TRUE(m_clTool.bConnect("127.0.0.1", 4999));
        ASSERT_EQ(m_clTool.csLine(), g_szHello);
        ASSERT_TRUE(m_clTool.csAsk("INFO").starts_with("YES"));
    }
    /// KiB: what the manager holds now ("VmRSS"), and held at most ("VmHWM").
    long nMemory(const char* pszField) const
    {
        return std::atol(csOutput("sed -n 's/^" + std::string(pszField) + ":[[:space:]]*//p' /proc/" +
                                  std::to_string(m_pclManager->nPid()) + "/status")
                             .c_str());
    }
    CWireClient m_clTool; ///< greeted
};

/// Sends one line of so many bytes; true when its reply is right.
bool bLongLine(std::size_t nBytes)
{
    const std::string csPart(1 << 20, 'x');
    CWireClient clTool("127.0.0.1", 4999);
    bool bSent = clTool.csLine() == g_szHello && clTool.bSend("STATUS\trun\t");
    for (std::size_t n = 0; bSent && n < nBytes; n += csPart.size()) {
        bSent = clTool.bSend(csPart, 60s);
    }
    return bSent && clTool.bSend("\r\n") && clTool.csLine(60s) == "STATUS\tRUNNING\r\n";
}

/// Fifty greeted tools.
std::vector<CWireClient> tFiftyTools()
{
    std::vector<CWireClient> tTools(50);
    for (CWireClient& clTool : tTools) {
        EXPECT_TRUE(clTool.bConnect("127.0.0.1", 4999));
        EXPECT_EQ(clTool.csLine(), g_szHello);
    }
    return tTools;
}
} // namespace

TEST_F(Memory, LinesWithoutEndCostNothingAndHoldNobodyUp)
{
    const std::size_t nBytes = bLong() ? std::size_t{1} << 30 : std::size_t{32} << 20;
    const long nBefore = nMemory("VmRSS");
    for (const int nTools : {1, 10}) {
        std::atomic<int> nRight{0};
        std::atomic<int> nEnded{0};
        std::vector<std::jthread> tTools;
        for (int n = 0; n < nTools; ++n) {
            tTools.emplace_back([&] {
                nRight += bLongLine(nBytes) ? 1 : 0;
                ++nEnded;
            });
        }
        const auto clStart = CClock::now();
        long nSlowest = 0;
        while (nEnded < nTools) {
            const auto clAsked = CClock::now();
            EXPECT_EQ(m_clTool.csAsk("STATUS\trun"), "STATUS\tRUNNING\r\n");
            nSlowest = std::max(nSlowest, nMsSince(clAsked));
        }
        EXPECT_EQ(nRight, nTools);
        std::printf("FIGURE %d lines of %zu MiB at once: %ld ms, peak %ld KiB, another tool's STATUS at most "
                    "%ld ms\n",
                    nTools, nBytes >> 20, nMsSince(clStart), nMemory("VmHWM"), nSlowest);
    }
    EXPECT_LT(nMemory("VmHWM"), s_nMaxKiB);
    EXPECT_LT(nMemory("VmRSS"), nBefore + 2048) << "what the lines took is given back";
}

TEST_F(Memory, ALineIsGivenBackWhileItsToolStays)
{
    std::vector<CWireClient> tTools = tFiftyTools();
    const long nBefore = nMemory("VmRSS");
    for (CWireClient& clTool : tTools) {
        EXPECT_EQ(clTool.csAsk(std::string(100'000, 'x')), "ERROR\t8\r\n");
    }
    EXPECT_LT(nMemory("VmRSS"), nBefore + 2048);
}

TEST_F(Memory, SettingsFilesWithoutEndCostNothingAndHoldNobodyUp)
{
    const std::pair<const char*, const char*> tCases[] = {
        {"rm DXConf.ini && truncate -s 3G DXConf.ini", "4900"}, // one line, too
        {"truncate -s 500M DXConf.ini", "4900"},
        {"truncate -s 16M DXConf.ini", "4900"},
        {"truncate -s 15M DXConf.ini && printf '\\n[INIT]\\nAccessPort=4912\\n' >>DXConf.ini", "4912"},
    };
    for (const auto& [pszMake, pszPort] : tCases) {
        SCOPED_TRACE(pszMake);
        ASSERT_EQ(stRun("cd /opt/velmo/run && " + std::string(pszMake)).nStatus, 0);
        const auto clStart = CClock::now();
        EXPECT_TRUE(m_clTool.csAsk("INFO").ends_with("\trun\t" + std::string(pszPort) + "\r\n"));
        EXPECT_EQ(m_clTool.csAsk("CLUSTERINFO\trun"), "YES\t0\t\r\n");
        EXPECT_LT(nMsSince(clStart), 1000);
    }
    stRun("journalctl --sync");
    EXPECT_EQ(csOutput("journalctl -b -t VelmoManager -o cat | grep -c 'DXConf.ini is larger than 16 MiB'"),
              "1");
    std::printf("FIGURE settings files of 3 GB and of lines of 500 MB: peak %ld KiB\n", nMemory("VmHWM"));
    EXPECT_LT(nMemory("VmHWM"), s_nMaxKiB);
}

namespace {
class Restarts : public CMachineTest
{
protected:
    /// The installed manager's port, after conversations that it ends first: with fifty tools connected and
    /// one that has quit.
    static void Restart(const char* pszHow, const char* pszCommand, int nRounds, long nMaxMs)
    {
        PutManager("manager", "RestartOnFailed=0\n");
        ASSERT_EQ(stRun("cd / && /opt/velmo/manager/VelmoManager").nStatus, 0);
        long nSlowest = 0;
        for (int n = 0; n < nRounds; ++n) {
            SCOPED_TRACE(n);
            stRun("systemctl reset-failed VelmoManager"); // so many starts in a row would be a failure
            std::vector<CWireClient> tTools = tFiftyTools();
            ASSERT_TRUE(tTools[0].bSend("QUIT\r\n") && tTools[0].bClosed());
            const auto clStart = CClock::now();
            ASSERT_EQ(stRun(pszCommand).nStatus, 0);
            ASSERT_TRUE(tTools[1].bClosed());
            ASSERT_TRUE(bWaitUntil([] { return bServes(4999); }, 10'000));
            nSlowest = std::max(nSlowest, nMsSince(clStart));
        }
        std::printf("FIGURE %d %s with 50 tools connected: %ld ms at most until the next greeting\n", nRounds,
                    pszHow, nSlowest);
        EXPECT_LT(nSlowest, nMaxMs);
    }
};
} // namespace

TEST_F(Restarts, RightAfterAConversation)
{
    Restart("restarts", "systemctl restart VelmoManager", bLong() ? 200 : 10, 1000);
}

TEST_F(Restarts, AfterAKillWithFiftyToolsConnected)
{
    Restart("kills", "kill -KILL $(cat /run/VelmoManager.pid)", bLong() ? 20 : 3, 2000);
}
