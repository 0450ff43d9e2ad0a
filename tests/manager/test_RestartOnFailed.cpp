#include "manager/RestartOnFailed.h"
#include "tools/Command.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"

#include <gtest/gtest.h>

namespace {
constexpr char s_szStates[] = ". " VELMO_SCRIPTS "states.sh";

class RestartOnFailed : public CSystemdTest
{
protected:
    void Start(const std::string& csServers)
    {
        m_clTool.Write("servers", csServers);
        m_clMonitor.xStart();
    }
    /// Waits until all calls so far have these among them.
    bool bCalled(const std::string& csCall, int nTimes = 1)
    {
        return bWaitUntil([&] { return nCount(m_csJournal += m_clTool.csTakeJournal(), csCall) >= nTimes; },
                          20'000);
    }
    CFakeTool m_clTool{"/bin/systemctl", s_szStates};
    CRestartOnFailed m_clMonitor{&m_clManager, 0};
    std::string m_csJournal;
};
} // namespace

TEST_F(RestartOnFailed, OnlyFailedServersAreStartedAndNoneAfterAStop)
{
    Start("DXCS-failed DXCS-inactive DXCS-activating DXCS-deactivating DXCS-active");
    EXPECT_TRUE(bCalled("start DXCS-failed\n") && bCalled("show DXCS-active\n"));
    m_clMonitor.Stop();
    m_csJournal += m_clTool.csTakeJournal();
    EXPECT_EQ(nCount(m_csJournal, "start "), nCount(m_csJournal, "start DXCS-failed\n")) << m_csJournal;
    EXPECT_EQ(nCount(m_csJournal, "other"), 0);
    EXPECT_FALSE(bWaitUntil([&] { return !m_clTool.csTakeJournal().empty(); }, 200)) << "it went on";
}

TEST_F(RestartOnFailed, APassThatCannotListIsSkippedAndAStateThatCannotBeAskedLeftAlone)
{
    const std::string csMany = stRun("seq -f DXCS-%.0f 99").csOutput; // asked in more than one batch
    for (const auto& [pszBroken, csServers] :
         {std::pair{"*show\\ DXCS-99", csMany}, {"*ActiveState*DXCS-failed", "DXCS-failed DXCS-active"}}) {
        SCOPED_TRACE(pszBroken);
        m_clTool.Write("broken", pszBroken);
        Start(csServers);
        EXPECT_TRUE(bCalled("list-units", 2)) << "the next pass looks again";
        m_clMonitor.Stop();
        EXPECT_EQ(nCount(m_csJournal + m_clTool.csTakeJournal(), "start"), 0);
        m_csJournal.clear();
    }
}

TEST_F(RestartOnFailed, ServersThatHangAtTheirStartHoldUpNoOtherAndAreStartedOnce)
{
    for (const char* psz : {"hang-1", "hang-2", "hang-3", "hang-4", "hang-5", "hang-6"}) {
        m_clTool.Write(psz, "");
    }
    Start("DXCS-1 DXCS-2 DXCS-3 DXCS-4 DXCS-5 DXCS-6 DXCS-7 DXCS-8 DXCS-9 DXCS-10 DXCS-11 DXCS-12");
    EXPECT_TRUE(bWaitUntil([&] { return m_clTool.bExists("up-7") && m_clTool.bExists("up-12"); }, 10'000));
    m_csJournal += m_clTool.csTakeJournal();
    EXPECT_TRUE(bCalled("list-units", nCount(m_csJournal, "list-units") + 3)) << "passes go on";
    EXPECT_FALSE(m_clTool.bExists("up-1"));
    for (int n = 1; n <= 12; ++n) {
        EXPECT_EQ(nCount(m_csJournal, "start DXCS-" + std::to_string(n) + "\n"), 1) << n;
    }

    stRun("rm " + m_clTool.csFolder() + "/hang-*");
    EXPECT_TRUE(bWaitUntil([&] { return m_clTool.bExists("up-1") && m_clTool.bExists("up-6"); }, 5000));
    m_clMonitor.Stop();
}
