#include "manager/RestartOnFailed.h"
#include "service/ServiceManagerUnix.h"
#include "support/ZTSem.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"

#include <chrono>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {
using Clock = std::chrono::steady_clock;

/// Five servers, one for each state, and another failed service.
constexpr char s_szStates[] = R"(for LAST; do :; done
case "$*" in
list-units*) for s in DXCS-failed DXCS-inactive DXCS-activating DXCS-deactivating DXCS-active other; do echo "  $s.service l a r x"; done ;;
*ActiveState*) echo "ActiveState=${LAST#DXCS-}" ;;
*Description*) printf 'Type=forking\nDescription=x\nExecStart={ argv[]=/x ; }\n' ;;
esac)";

using RestartOnFailed = CSystemdTest;
} // namespace

TEST_F(RestartOnFailed, OnlyFailedServersAreStarted)
{
    CFakeTool clTool("/bin/systemctl", s_szStates);
    CRestartOnFailed clMonitor(&m_clManager, 0);
    clMonitor.xStart();
    std::string csJournal;
    EXPECT_TRUE(bWaitUntil(
        [&] {
            csJournal += clTool.csTakeJournal();
            return csJournal.find("ActiveState show DXCS-inactive") != std::string::npos &&
                   csJournal.find("start DXCS-failed\n") != std::string::npos;
        },
        20000));
    clMonitor.Stop();
    csJournal += clTool.csTakeJournal();
    for (const char* pszOther : {"inactive", "activating", "deactivating", "active"}) {
        EXPECT_EQ(csJournal.find(std::string("start DXCS-") + pszOther), std::string::npos) << pszOther;
    }
    EXPECT_THAT(csJournal, ::testing::Not(::testing::HasSubstr("other")));
}

TEST_F(RestartOnFailed, TheFirstPassComesAfterAPeriodThatWrapsAt32Bits)
{
    CFakeTool clTool("/bin/systemctl", s_szStates);
    CRestartOnFailed clDaily(&m_clManager, 86400);
    clDaily.xStart();
    CRestartOnFailed clWrapped(&m_clManager, 4294968); // 704 ms
    clWrapped.xStart();
    const auto clStart = Clock::now();
    std::string csFirst;
    EXPECT_TRUE(bWaitUntil([&] { return !(csFirst += clTool.csTakeJournal()).empty(); }, 10000));
    EXPECT_GE(Clock::now() - clStart, std::chrono::milliseconds(600))
        << "the daily one does not begin at its start";
}

TEST_F(RestartOnFailed, AStopEndsTheSleepAtOnceAndAPassWhenItIsOver)
{
    CFakeTool clTool("/bin/systemctl", "sleep 0.3\n");
    CRestartOnFailed clSleeping(&m_clManager, 86400);
    CRestartOnFailed clBusy(&m_clManager, 0);
    clSleeping.xStart();
    clBusy.xStart();
    EXPECT_TRUE(bWaitUntil([&] { return !clTool.csTakeJournal().empty(); }, 5000));
    const auto clStart = Clock::now();
    clSleeping.Stop();
    EXPECT_LT(Clock::now() - clStart, std::chrono::milliseconds(1000));
    clBusy.Stop();
    EXPECT_LT(Clock::now() - clStart, std::chrono::milliseconds(3000));
    EXPECT_FALSE(clBusy.bThreadRunning());
    clTool.csTakeJournal();
    EXPECT_FALSE(bWaitUntil([&] { return !clTool.csTakeJournal().empty(); }, 200)) << "it went on";
}
