// The built manager from start to stop under load.

#include "ManagerWorld.h"
#include "support/CloseRange.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
/// Comparisons of the C library and its loader read whole vectors; valgrind replaces only some of them.
constexpr char s_szKnown[] = "{\n vectors\n Memcheck:Addr32\n fun:__wmemcmp*\n}\n"
                             "{\n vectors2\n Memcheck:Cond\n fun:__wmemcmp*\n}\n"
                             "{\n vectors3\n Memcheck:Addr8\n fun:strncmp\n fun:is_dst\n}\n";

/// Kibibytes that the process had in memory at most.
long nPeakMemory(pid_t nProcess)
{
    return std::stol(
        "0" + stRun("awk '/VmHWM/ { print $2 }' /proc/" + std::to_string(nProcess) + "/status").csOutput);
}
} // namespace

TEST(Whole, HasNoMemoryErrorAndNoLeak)
{
    REQUIRE_PRIVATE_WORLD();
    if (g_bSanitized || !std::filesystem::exists("/usr/bin/valgrind")) {
        GTEST_SKIP() << "SKIPPED: needs valgrind and a build without sanitizers";
    }
    const CManagerWorld clWorld;
    std::ofstream("/tmp/known.supp") << s_szKnown;
    // As on a kernel without close_range: valgrind does not know children that share the descriptor table.
    CManagerRun clManager("env LD_PRELOAD=/run/velmo/libvelmooldkernel.so "
                          "/usr/bin/valgrind --quiet --vgdb=no --leak-check=full "
                          "--show-leak-kinds=definite,indirect,possible "
                          "--errors-for-leak-kinds=definite,possible --error-exitcode=99 "
                          "--log-file=/tmp/valgrind.%p --fair-sched=yes --suppressions=/tmp/known.supp ");
    ASSERT_TRUE(clManager.bAnswers(30'000));
    std::vector<std::jthread> tTools;
    for (int n = 0; n < 4; ++n) {
        tTools.emplace_back([] { (void)csPlay(false); });
    }
    tTools.clear(); // once they have ended
    EXPECT_EQ(csPlay(true), "");
    EXPECT_EQ(clManager.nStop(30'000), 0) << "99: see what valgrind tells below";
    EXPECT_EQ(stRun("cat /tmp/valgrind.*").csOutput, "");
    EXPECT_EQ(CManagerWorld::csDamage(), "");
}

TEST(Whole, WorksOnAKernelThatRefusesWhatYoungOnesHave)
{
    REQUIRE_PRIVATE_WORLD();
    for (const char* pszError : {"ENOSYS", "EPERM"}) {
        const CManagerWorld clWorld;
        CManagerRun clManager("/run/velmo/refuse " + std::string(pszError) + " ");
        ASSERT_TRUE(clManager.bAnswers()) << pszError;
        EXPECT_EQ(csPlay(true), "") << pszError;
        EXPECT_EQ(clManager.nStop(), 0);
    }
}

TEST(Whole, StopsPromptlyAlthoughManyWaitForASlowTool)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld("sleep 1\n");
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    std::vector<CWireClient> tTools(30);
    for (CWireClient& clTool : tTools) {
        EXPECT_TRUE(clTool.bConnect("127.0.0.1", 4999) && clTool.bSend("INFO\r\n"));
    }
    ::usleep(500'000); // so that the discovery thread, which the stop waits for, comes last
    EXPECT_TRUE(CPingClient().Ask("127.0.0.1", 4999, "ARE YOU A DEXARO MANAGER UTF-8?\r\n"));
    ::usleep(500'000);
    EXPECT_EQ(clManager.nStop(), 0);
}

TEST(Whole, AToolThatPrintsForEverCostsLittleMemoryAndNobodyElsesAnswer)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld(
        "case \"$*\" in list-units*) exec yes '  DXCS-A.service loaded active running DXCS-A' ;; esac\n");
    std::ofstream("/run/velmo/DXConf.ini") << "[MANAGER]\nRestartOnFailed=0\n"; // one listing at a time
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    std::vector<std::jthread> tTools;
    for (int n = 0; n < 3; ++n) {
        tTools.emplace_back([] {
            CWireClient clTool("127.0.0.1", 4999);
            (void)clTool.csLine();
            EXPECT_EQ(clTool.csAsk("INFO", std::chrono::seconds(60)), "<closed>");
        });
    }
    CWireClient clTool("127.0.0.1", 4999);
    (void)clTool.csLine();
    for (int n = 0; n < 20; ++n) {
        EXPECT_EQ(clTool.csAsk("STATUS\tA", std::chrono::seconds(2)), "STATUS\tRUNNING\r\n");
        ::usleep(200'000);
    }
    tTools.clear();
    const long nPeak = nPeakMemory(clManager.nPid());
    std::printf("FIGURE peak resident memory beside a tool that prints for ever: %ld KiB\n", nPeak);
    EXPECT_TRUE(g_bSanitized || nPeak < 32L * 1024) << nPeak;
    clTool.Close();
    EXPECT_EQ(clManager.nStop(30'000), 0);
}

TEST(Whole, ASystemdThatDoesNotAnswerAtTheStartIsStillSystemd)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld(
        "if [ $1 = --no-pager ] && ! [ -e $DIR/tried ]; then touch $DIR/tried; exit 1; fi\n");
    stRun("mkdir -p /run/systemd/system"); // which tells that systemd was booted
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    EXPECT_EQ(csPlay(true), "");
    EXPECT_EQ(clManager.nStop(), 0);
    stRun("rm -r /run/systemd");
}

TEST(Whole, AForegroundManagerThatCannotStartSaysWhy)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld;
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    const STCommandResult st = stRun(std::string(CManagerWorld::Manager) + " --DEBUG 2>&1 >/dev/null");
    EXPECT_EQ(st.nStatus, 0);
    EXPECT_NE(st.csOutput.find("4999"), std::string::npos) << st.csOutput;
    EXPECT_EQ(clManager.nStop(), 0);
}

TEST(Whole, CommandsSayWhatCouldNotBeAskedAndWriteNothing)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld("case \"$*\" in --no-pager*) exit 0 ;; *) exit 1 ;; esac\n");
    const std::string csManager = CManagerWorld::Manager;
    for (const char* pszOptions : {" --STOPALL", " --STOP-SERVER /run/velmo/a"}) {
        const STCommandResult st = stRun(csManager + pszOptions + " 2>&1 >/dev/null");
        EXPECT_EQ(st.nStatus, 0);
        EXPECT_NE(st.csOutput.find("could not be listed or asked: Operation canceled"), std::string::npos)
            << pszOptions << st.csOutput;
    }
    const STCommandResult st = stRun(csManager);
    EXPECT_EQ(st.nStatus, 255);
    EXPECT_NE(st.csOutput.find("cannot be registered or looked up"), std::string::npos) << st.csOutput;
    EXPECT_EQ(stRun("ls /lib/systemd/system").csOutput, "") << "it may be registered already";
}

TEST(Whole, WorksWhateverItIsStartedWith)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld(
        "[ \"$SYSTEMD_LOG_LEVEL$SYSTEMD_COLORS$SYSTEMD_PAGER$LC_ALL\" = 0C.UTF-8 ] || exit 1\n"
        "sleep 0.01\n");
    const auto csShell = [](const std::string& csBefore, const std::string& csBehind = "") {
        return "sh -c '" + csBefore + "exec \"$0\" \"$@\"" + csBehind + "' ";
    };
    const std::string tWrappers[] = {
        "",
        "env --block-signal=CHLD ",
        "env --block-signal ",
        "env --ignore-signal ",
        csShell("", " <&- >&- 2>&-"),
        "prlimit --nofile=16 ",
        g_bSanitized ? "" : "prlimit --stack=65536 ",
        "prlimit --stack=unlimited ",
        csShell("umask 077; "),
        "env LC_ALL=tr_TR.UTF-8 LANGUAGE=fr ",
        "env SYSTEMD_LOG_LEVEL=debug SYSTEMD_COLORS=1 SYSTEMD_URLIFY=1 ",
    };
    constexpr unsigned int nCloseOnExec = 1u << 2;
    (void)nCloseRange(3, ~0U, nCloseOnExec); // the manager is to have what it opens itself
    for (const std::string& csWrapper : tWrappers) {
        SCOPED_TRACE(csWrapper);
        CManagerWorld::Reset();
        std::ofstream("/run/velmo/DXConf.ini") << "[MANAGER]\nRestartOnFailed=0\n"; // one listing at a time
        CManagerRun clManager(csWrapper);
        ASSERT_TRUE(clManager.bAnswers());
        const auto clStart = std::chrono::steady_clock::now();
        EXPECT_EQ(csPlay(true), "");
        EXPECT_LT(std::chrono::steady_clock::now() - clStart, std::chrono::seconds(5)) << "full pauses";
        EXPECT_EQ(stRun("grep Umask /proc/" + std::to_string(clManager.nPid()) + "/status").csOutput,
                  "Umask:\t0022\n");
        EXPECT_TRUE(bWaitUntil([&] { return stFiguresOf(clManager.nPid()).nChildren == 0; }, 3000));
        EXPECT_EQ(clManager.nStop(), 0);
    }
}
