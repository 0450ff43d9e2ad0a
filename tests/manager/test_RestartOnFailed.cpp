#include "manager/RestartOnFailed.h"
#include "tools/SystemdTest.h"
#include "tools/Wait.h"

#include <gtest/gtest.h>

namespace {
/// Five servers, one for each state, and another failed service. A file $DIR/broken holds the pattern of
/// calls that fail.
constexpr char s_szStates[] = R"(for LAST; do :; done
if [ -e $DIR/broken ]; then eval "case \"\$*\" in $(cat $DIR/broken)) exit 1;; esac"; fi
case "$*" in
list-units*) for s in DXCS-failed DXCS-inactive DXCS-activating DXCS-deactivating DXCS-active other; do echo "  $s.service l a r x"; done ;;
*ActiveState*) echo "ActiveState=${LAST#DXCS-}" ;;
*Description*) printf 'Type=forking\nDescription=x\nExecStart={ argv[]=/x ; }\n' ;;
esac)";

using RestartOnFailed = CSystemdTest;
} // namespace

TEST_F(RestartOnFailed, OnlyFailedServersAreStartedAndNoneAfterAStop)
{
    CFakeTool clTool("/bin/systemctl", s_szStates);
    CRestartOnFailed clMonitor(&m_clManager, 0);
    clMonitor.xStart();
    std::string csJournal;
    const auto bFound = [&](const std::string& csCall) {
        csJournal += clTool.csTakeJournal();
        return csJournal.find(csCall) != std::string::npos;
    };
    EXPECT_TRUE(
        bWaitUntil([&] { return bFound("start DXCS-failed\n") && bFound("show DXCS-active\n"); }, 20'000));
    clMonitor.Stop();
    for (const char* pszOther : {"inactive", "activating", "deactivating", "active"}) {
        EXPECT_FALSE(bFound(std::string("start DXCS-") + pszOther)) << pszOther;
    }
    EXPECT_FALSE(bFound("other"));
    EXPECT_FALSE(bWaitUntil([&] { return !clTool.csTakeJournal().empty(); }, 200)) << "it went on";
}

TEST_F(RestartOnFailed, APassThatCannotListIsSkippedAndAStateThatCannotBeAskedLeftAlone)
{
    CFakeTool clTool("/bin/systemctl", s_szStates);
    for (const char* pszBroken : {"*show\\ DXCS-active", "*ActiveState*DXCS-failed"}) {
        clTool.Write("broken", pszBroken);
        clTool.csTakeJournal();
        CRestartOnFailed clMonitor(&m_clManager, 0);
        clMonitor.xStart();
        std::string csJournal;
        EXPECT_TRUE(bWaitUntil(
            [&] {
                csJournal += clTool.csTakeJournal();
                return csJournal.rfind("list-units") != csJournal.find("list-units");
            },
            20'000))
            << "the next pass looks again";
        clMonitor.Stop();
        EXPECT_EQ((csJournal + clTool.csTakeJournal()).find("start"), std::string::npos) << pszBroken;
    }
}
