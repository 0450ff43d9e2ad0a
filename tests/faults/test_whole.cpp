// The built manager from start to stop under load.

#include "ManagerWorld.h"
#include "tools/Command.h"
#include "tools/PingClient.h"
#include "tools/WireClient.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

namespace {
/// Comparisons of the C library and its loader read whole vectors; valgrind replaces only some of them.
constexpr char s_szKnown[] = "{\n vectors\n Memcheck:Addr32\n fun:__wmemcmp*\n}\n"
                             "{\n vectors2\n Memcheck:Cond\n fun:__wmemcmp*\n}\n"
                             "{\n vectors3\n Memcheck:Addr8\n fun:strncmp\n fun:is_dst\n}\n";
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
