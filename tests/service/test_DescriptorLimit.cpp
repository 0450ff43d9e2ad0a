#include "service/LanceProcessus.h"
#include "support/DescriptorLimit.h"
#include "support/Shell.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

TEST(DescriptorLimit, IsRaisedForTheDaemonAndLeftAsItWasForItsChildren)
{
    rlimit stBefore{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &stBefore), 0);
    const rlimit stStartedWith{200, stBefore.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &stStartedWith), 0);
    RaiseDescriptorLimit();
    RaiseDescriptorLimit(); // a second time it must not take the raised limit for the first one
    rlimit stRaised{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &stRaised), 0);
    EXPECT_EQ(stRaised.rlim_cur, stBefore.rlim_max);
    EXPECT_EQ(nShell("test \"$(ulimit -Sn)\" = 200"), 0);

    CLanceProcessus::sInit();
    std::string csOutput;
    unsigned int nCode = 99;
    {
        CLanceProcessus clLauncher;
        ASSERT_TRUE(clLauncher.bLanceProcessus(L"/bin/sh", L"-c \"ulimit -Sn\"", nullptr));
        EXPECT_TRUE(clLauncher.bLitSortieEtAttendFinExecution(&csOutput, &nCode));
    }
    CLanceProcessus::sTerm();
    EXPECT_EQ(csOutput, "200\n");
}
