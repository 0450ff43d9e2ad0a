// The built manager from start to stop under load, as it was built (CI runs this in its sanitizer builds too)
// and in valgrind's memcheck.

#include "ManagerWorld.h"
#include "tools/PingClient.h"
#include "tools/WireClient.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

namespace {
constexpr unsigned short s_wManagerPort = 4999;
constexpr char s_szQuestion[] = "ARE YOU A DEXARO MANAGER UTF-8?\r\n";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool s_bSanitized = true;
#else
constexpr bool s_bSanitized = false;
#endif

/// Several tools at once, then one alone whose replies must all be right.
std::string csServe()
{
    std::vector<std::thread> tTools;
    for (int n = 0; n < 4; ++n) {
        tTools.emplace_back([] { (void)csPlay(false); });
    }
    for (std::thread& clTool : tTools) {
        clTool.join();
    }
    return csPlay(true);
}

/// Comparisons of the C library and its loader read whole vectors; valgrind replaces only some of them.
constexpr char s_szKnown[] = "{\n vectors\n Memcheck:Addr32\n fun:__wmemcmp*\n}\n"
                             "{\n vectors2\n Memcheck:Cond\n fun:__wmemcmp*\n}\n"
                             "{\n vectors3\n Memcheck:Addr8\n fun:strncmp\n fun:is_dst\n}\n";

const std::vector<std::string> s_tOldKernel{"LD_PRELOAD=/run/velmo/libvelmooldkernel.so"};

class Whole : public ::testing::Test
{
protected:
    static void SetUpTestSuite() { s_pclWorld = std::make_unique<CManagerWorld>(); }
    static void TearDownTestSuite() { s_pclWorld.reset(); }
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        CManagerWorld::Reset();
    }
    static std::unique_ptr<CManagerWorld> s_pclWorld;
};
std::unique_ptr<CManagerWorld> Whole::s_pclWorld;
} // namespace

TEST_F(Whole, ServesManyAtOnceAndLeavesNothingBehind)
{
    for (const bool bOldKernel : {false, true}) {
        SCOPED_TRACE(bOldKernel ? "a kernel without close_range" : "this kernel");
        if (bOldKernel && s_bSanitized) {
            continue; // a sanitizer's runtime insists on being loaded first
        }
        CManagerWorld::Reset();
        CManagerRun clManager(bOldKernel ? s_tOldKernel : std::vector<std::string>());
        ASSERT_TRUE(clManager.bAnswers());
        const STFigures stBefore = clManager.stSettled({}, 500);
        EXPECT_EQ(csServe(), "");
        const STFigures stAfter = clManager.stSettled(stBefore);
        EXPECT_LE(stAfter.nDescriptors, stBefore.nDescriptors);
        EXPECT_LE(stAfter.nThreads, stBefore.nThreads);
        EXPECT_EQ(stAfter.nChildren, 0);
        EXPECT_EQ(clManager.csStop(), "exit 0");
        EXPECT_EQ(CManagerWorld::csDamage(), "");
    }
}

TEST_F(Whole, HasNoMemoryErrorAndNoLeak)
{
    if (s_bSanitized || !std::filesystem::exists("/usr/bin/valgrind")) {
        GTEST_SKIP() << "SKIPPED: needs valgrind and a build without sanitizers";
    }
    std::ofstream("/tmp/known.supp") << s_szKnown;
    // valgrind does not know children that share the descriptor table.
    CManagerRun clManager(s_tOldKernel, {"/usr/bin/valgrind", "--quiet", "--vgdb=no", "--leak-check=full",
                                         "--show-leak-kinds=definite,indirect,possible",
                                         "--errors-for-leak-kinds=definite,possible", "--error-exitcode=99",
                                         "--log-file=/tmp/valgrind.%p", "--fair-sched=yes",
                                         "--suppressions=/tmp/known.supp"});
    ASSERT_TRUE(clManager.bAnswers(30'000));
    EXPECT_EQ(csServe(), "");
    EXPECT_EQ(clManager.csStop(30'000), "exit 0") << "99: see what valgrind tells below";
    std::ifstream clLog("/tmp/valgrind." + std::to_string(clManager.nPid()));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(clLog), {}), "");
    EXPECT_EQ(CManagerWorld::csDamage(), "");
}

TEST(Stop, IsPromptAlthoughManyWaitForASlowTool)
{
    REQUIRE_PRIVATE_WORLD();
    const CManagerWorld clWorld("", "sleep 1\n");
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    std::vector<CWireClient> tTools(30);
    CPingClient clFinder;
    for (CWireClient& clTool : tTools) {
        EXPECT_TRUE(clTool.bConnect("127.0.0.1", s_wManagerPort) && clTool.bSend("INFO\r\n"));
    }
    ::usleep(500'000); // so that the discovery thread, which the stop waits for, comes last
    EXPECT_TRUE(clFinder.Ask("127.0.0.1", s_wManagerPort, s_szQuestion));
    ::usleep(500'000);
    EXPECT_EQ(clManager.csStop(), "exit 0");
}
