// The built manager from start to stop under load.

#include "ManagerWorld.h"
#include "tools/Command.h"
#include "tools/Wait.h"
#include "tools/WireClient.h"

#include <chrono>
#include <cstdio>
#include <fcntl.h>
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

class Whole : public ::testing::Test
{
protected:
    void SetUp() override { REQUIRE_PRIVATE_WORLD(); }
    /// A manager in the world of that systemctl plays right, and ends.
    static void ExpectAllRight(const std::string& csSystemctl, const std::string& csWrapper = "")
    {
        SCOPED_TRACE(csWrapper);
        const CManagerWorld clWorld(csSystemctl);
        CManagerRun clManager(csWrapper);
        ASSERT_TRUE(clManager.bAnswers());
        EXPECT_EQ(csPlay(true), "");
        EXPECT_EQ(clManager.nStop(), 0);
    }
    /// Questions one at a time: the monitor asks nothing.
    static void RestartNothing()
    {
        std::ofstream("/run/velmo/DXConf.ini") << "[MANAGER]\nRestartOnFailed=0\n";
    }
};
} // namespace

TEST_F(Whole, HasNoMemoryErrorAndNoLeak)
{
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

TEST_F(Whole, WorksOnAKernelThatRefusesWhatYoungOnesHave)
{
    ExpectAllRight("", "/run/velmo/refuse ENOSYS ");
    ExpectAllRight("", "/run/velmo/refuse EPERM ");
}

TEST_F(Whole, ASystemdThatDoesNotAnswerAtTheStartIsStillSystemd)
{
    stRun("mkdir -p /run/systemd/system"); // which tells that systemd was booted
    ExpectAllRight("[ $1 != --no-pager ] || exit 1\n");
    stRun("rm -r /run/systemd");
}

TEST_F(Whole, CommandsSayWhatCouldNotBeAskedAndWriteNothing)
{
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

TEST_F(Whole, WorksWhateverItIsStartedWith)
{
    const CManagerWorld clWorld(
        "[ \"$SYSTEMD_LOG_LEVEL$SYSTEMD_COLORS$SYSTEMD_PAGER$LC_ALL$POSIXLY_CORRECT\" = 0C.UTF-8 ] || exit "
        "1\n"
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
        "prlimit --sigpending=0 ",
        csShell("umask 077; "),
        "env LC_ALL=tr_TR.UTF-8 LANGUAGE=fr ",
        "env SYSTEMD_LOG_LEVEL=debug SYSTEMD_COLORS=1 SYSTEMD_URLIFY=1 POSIXLY_CORRECT=1 ",
    };
    for (int nFd = 3; nFd < 1024; ++nFd) { // the manager is to have what it opens itself
        ::fcntl(nFd, F_SETFD, FD_CLOEXEC);
    }
    for (const std::string& csWrapper : tWrappers) {
        SCOPED_TRACE(csWrapper);
        CManagerWorld::Reset();
        RestartNothing();
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
