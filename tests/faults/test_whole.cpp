// The built manager from start to stop under load, as it was built (CI runs this in its sanitizer builds too)
// and in valgrind's memcheck.

#include "ManagerWorld.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <thread>

namespace {
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

/// The C library's comparison of wide texts reads whole vectors; valgrind replaces only the one of bytes.
constexpr char s_szKnown[] = "{\n vectors\n Memcheck:Addr32\n fun:__wmemcmp*\n}\n"
                             "{\n vectors2\n Memcheck:Cond\n fun:__wmemcmp*\n}\n";

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
    CManagerRun clManager;
    ASSERT_TRUE(clManager.bAnswers());
    const stFigures stBefore = clManager.stSettled({}, 500);
    EXPECT_EQ(csServe(), "");
    const stFigures stAfter = clManager.stSettled(stBefore);
    EXPECT_LE(stAfter.nDescriptors, stBefore.nDescriptors);
    EXPECT_LE(stAfter.nThreads, stBefore.nThreads);
    EXPECT_EQ(stAfter.nChildren, 0);
    EXPECT_EQ(clManager.csStop(), "exit 0");
    EXPECT_EQ(CManagerWorld::csDamage(), "");
}

TEST_F(Whole, HasNoMemoryErrorAndNoLeak)
{
    if (s_bSanitized || !std::filesystem::exists("/usr/bin/valgrind")) {
        GTEST_SKIP() << "SKIPPED: needs valgrind and a build without sanitizers";
    }
    std::ofstream("/tmp/known.supp") << s_szKnown;
    CManagerRun clManager({}, {"/usr/bin/valgrind", "--quiet", "--vgdb=no", "--leak-check=full",
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
