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
    for (const auto& [pszName, nMaxMs] : {std::pair{L"DXCS-a", 500}, {L"DXCS-deaf", 3500}}) {
        SCOPED_TRACE(pszName);
        CFakeTool clTool("/bin/systemctl", s_szStarts);
        auto clFirst = clStart(pszName);
        ASSERT_TRUE(bWaitUntil([&] { return nCount(clTool.csTakeJournal(), "start ") > 0; }, 5000));
        auto clSecond = clStart(pszName); // waits for the first
        const CStopwatch clTook;
        {
            const auto clHold = clLocks().clTakeToRemove(
                pszName, [&, pszOwn = pszName] { EXPECT_TRUE(CService(&m_clManager, pszOwn).bStop()); });
            EXPECT_TRUE(clHold.bTaken());
            EXPECT_LT(clTook.nMs(), nMaxMs);
            EXPECT_EQ(clFirst.get(), "Operation canceled");
            EXPECT_EQ(clSecond.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
            EXPECT_NE(stRun("pgrep -f '^sleep 30'").nStatus, 0) << "its tool could start it later";
        }
        while (clSecond.wait_for(std::chrono::milliseconds(10)) == std::future_status::timeout) {
            (void)clLocks().clTakeToRemove(
                pszName, [&, pszOwn = pszName] { (void)CService(&m_clManager, pszOwn).bStop(); });
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
                const std::set<std::wstring> tNames = {L"DXCS-b", n == 1 ? L"DXCS-a" : L"DXCS-c"};
                const auto clHold =
                    n == 0 ? clLocks().clTakeToRemove(L"DXCS-b", [] {}) : clLocks().clTake(tNames);
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
    EXPECT_LT(clTook.nMs(), CStopping::s_nAnswersMs); // what a stop leaves them
}
