// Who changes one service takes turns; a removal breaks into a start.

#include "service/ServiceLocks.h"
#include "tools/Command.h"
#include "tools/Stopwatch.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {
/// "start" goes on until a "stop" comes, which makes it fail, as systemd cancels the job; that of DXCS-deaf
/// is not impressed.
constexpr char s_szStarts[] = R"sh(case "$*" in
"start DXCS-deaf") exec sleep 30 ;;
start*) while [ ! -e $DIR/stopped ]; do sleep 0.02; done; exit 1 ;;
stop*) echo >$DIR/stopped ;;
esac)sh";

class ServiceLocks : public CSystemdTest
{
protected:
    void TearDown() override
    {
        CStopping::Reset();
        CSystemdTest::TearDown();
    }
    CServiceLocks& clLocks() { return m_clManager.clGetLocks(); }
    /// A start, under the service's lock, on a thread of its own; what came of it.
    std::future<std::string> clStart(const std::wstring& csName)
    {
        return std::async(std::launch::async, [this, csName] {
            CService clService(&m_clManager, csName.c_str());
            auto clHold = clLocks().clTake(csName);
            return clHold.bStart(clService) ? std::string("started") : std::string(std::strerror(errno));
        });
    }
};
} // namespace

TEST_F(ServiceLocks, ARemovalCancelsAStartThatIsUnderWayAndNobodyStartsInBetween)
{
    const std::tuple<const wchar_t*, bool, long> tCases[] = {
        // service, started through a script, milliseconds that the removal takes at most
        {L"DXCS-a", false, 500},
        {L"DXCS-deaf", false, 3500},
        {L"DXCS-a", true, 3500},
    };
    for (const auto& [pszName, bScript, nMaxMs] : tCases) {
        SCOPED_TRACE(bScript);
        CServiceManager::ms_eDistri = bScript ? DISTRI_DEBIAN : DISTRI_SYSTEMD;
        CFakeTool clTool("/bin/systemctl", s_szStarts);
        std::ofstream("/etc/init.d/DXCS-a")
            << "#!/bin/sh\n[ $1 != start ] || { sleep 31; echo >/run/late; }\n";
        stRun("chmod 755 /etc/init.d/DXCS-a");
        const auto bUnderWay = [&, bScript = bScript] {
            return bScript ? stRun("pgrep -f '^sleep 31'").nStatus == 0
                           : clTool.csTakeJournal().find("start ") != std::string::npos;
        };

        auto clFirst = clStart(pszName);
        ASSERT_TRUE(bWaitUntil(bUnderWay, 5000));
        auto clSecond = clStart(pszName); // waits for the first
        const CStopwatch clTook;
        {
            const auto clHold = clLocks().clTakeToRemove(
                pszName, [&, pszName = pszName] { EXPECT_TRUE(CService(&m_clManager, pszName).bStop()); });
            EXPECT_TRUE(clHold.bTaken());
            EXPECT_LT(clTook.nMs(), nMaxMs);
            EXPECT_EQ(clFirst.get(), "Operation canceled");
            EXPECT_EQ(clSecond.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
            EXPECT_NE(stRun("pgrep -f '^sleep 3[01]'").nStatus, 0) << "its tool could start it later";
        }
        while (clSecond.wait_for(std::chrono::milliseconds(10)) == std::future_status::timeout) {
            (void)clLocks().clTakeToRemove(
                pszName, [&, pszName = pszName] { (void)CService(&m_clManager, pszName).bStop(); });
        }
    }
}

TEST_F(ServiceLocks, OneServiceIsChangedByOneAtATimeAndAnotherNeverWaits)
{
    constexpr int nRounds = 200;
    std::atomic<int> nInside{0};
    std::vector<std::future<void>> tWorkers;
    for (int n = 0; n < 8; ++n) {
        tWorkers.push_back(std::async(std::launch::async, [&, n] {
            for (int nRound = 0; nRound < nRounds; ++nRound) {
                const auto clHold = n == 0   ? clLocks().clTakeToRemove(L"DXCS-b", [] {})
                                    : n == 1 ? clLocks().clTake(std::set<std::wstring>{L"DXCS-b", L"DXCS-a"})
                                             : clLocks().clTake(std::set<std::wstring>{L"DXCS-b", L"DXCS-c"});
                EXPECT_EQ(nInside.fetch_add(1), 0);
                std::this_thread::yield();
                nInside.fetch_sub(1);
            }
        }));
    }
    for (int nRound = 0; nRound < nRounds; ++nRound) {
        EXPECT_TRUE(clLocks().clTake(L"DXCS-other").bTaken());
    }
    for (auto& clWorker : tWorkers) {
        clWorker.get();
    }
    EXPECT_FALSE(clLocks().bHeld(L"DXCS-b"));
}

TEST_F(ServiceLocks, AStopMakesWhoeverWaitsLeaveAtOnce)
{
    auto clHold = clLocks().clTake(L"DXCS-a");
    auto clOther = std::async(std::launch::async, [&] { return clLocks().clTake(L"DXCS-a").bTaken(); });
    auto clRemoval =
        std::async(std::launch::async, [&] { return clLocks().clTakeToRemove(L"DXCS-a", [] {}).bTaken(); });
    EXPECT_EQ(clRemoval.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    const CStopwatch clTook;
    CStopping::Ask();
    EXPECT_FALSE(clOther.get() || clRemoval.get());
    EXPECT_LT(clTook.nMs(), 100);
}
