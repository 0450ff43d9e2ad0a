#include "support/accesdllres.h"
#include "support/ZTThread.h"
#include "tools/Elsewhere.h"
#include "tools/SoftLimit.h"
#include "tools/Stopwatch.h"
#include "tools/Wait.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <gtest/gtest.h>
#include <linux/futex.h>
#include <pthread.h>
#include <string>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace {
/// A thread that counts its runs and then sleeps until it is stopped.
struct STSleeper : CZTThread
{
    std::atomic<int> nRuns{0};
    std::atomic<int> nWoken{-1};
    std::atomic<int> bTermBlocked{-1};

    ~STSleeper() override { Stop(1); }

    static void Run(CZTThread* pclThread)
    {
        auto* pcl = static_cast<STSleeper*>(pclThread->pGetParameter());
        pcl->Started();
        sigset_t stMask;
        pthread_sigmask(SIG_SETMASK, nullptr, &stMask);
        pcl->bTermBlocked = sigismember(&stMask, SIGTERM);
        pcl->Wait();
        ++pcl->nRuns;
        pcl->nWoken = pcl->SleepOrStop(600000);
        pcl->Stopped();
    }
    EStart eRun(int bWait = 1, int bSuspended = 0) { return eStart(&Run, this, bWait, bSuspended); }
};
} // namespace

TEST(Thread, AStopWakesASleepAtOnceAndSIGTERMIsBlockedInTheThreadOnly)
{
    STSleeper clThread;
    ASSERT_EQ(clThread.eRun(), CZTThread::START_OK);
    EXPECT_TRUE(clThread.bThreadRunning());
    EXPECT_EQ(clThread.eRun(), CZTThread::START_OK); // runs already
    ASSERT_TRUE(bWaitUntil([&] { return clThread.nRuns == 1; }, 5000));
    const CStopwatch clTook;
    clThread.Stop(1);
    EXPECT_LT(clTook.nMs(), 2000);
    EXPECT_FALSE(clThread.bThreadRunning());
    EXPECT_EQ(clThread.nWoken, 0);
    EXPECT_EQ(clThread.bTermBlocked, 1);
    sigset_t stMask;
    pthread_sigmask(SIG_SETMASK, nullptr, &stMask);
    EXPECT_EQ(sigismember(&stMask, SIGTERM), 0);
}

TEST(Thread, ASuspendedThreadWaitsForResumeOrStopAndNeitherIsLostDuringTheStart)
{
    for (const int bWait : {0, 1}) {
        STSleeper clThread;
        clThread.eRun(bWait, 1);
        EXPECT_TRUE(bWait == 0 || !bWaitUntil([&] { return clThread.nRuns != 0; }, 20));
        clThread.Resume();
        EXPECT_TRUE(bWaitUntil([&] { return clThread.nRuns == 1; }, 5000));
    }
    for (int nRound = 0; nRound < 100; ++nRound) {
        STSleeper clThread;
        ASSERT_EQ(clThread.eRun(nRound % 2, nRound / 2 % 2), CZTThread::START_OK);
        clThread.Stop(1);
        ASSERT_FALSE(clThread.bThreadRunning());
    }
}

TEST(Thread, WhatAFunctionLeavesOutIsMadeUpForAndAnEarlyEndIsTold)
{
    const CZTThread::PFNThread tFunctions[] = {
        [](CZTThread*) {},
        [](CZTThread*) { throw 1; },
        [](CZTThread* pcl) { pcl->Started(); },
        [](CZTThread* pcl) {
            pcl->Started();
            throw 1;
        },
        [](CZTThread* pcl) {
            pcl->Started();
            ::pthread_exit(nullptr);
        },
        [](CZTThread* pcl) {
            pcl->Stopped();
            throw 1;
        },
    };
    InChild([&] {
        ::alarm(20); // instead of waiting for ever
        for (const CZTThread::PFNThread pfnThread : tFunctions) {
            STSleeper clThread;
            EXPECT_NE(clThread.eStart(pfnThread, nullptr, 1, 0), CZTThread::START_FAILED);
            EXPECT_TRUE(bWaitUntil([&] { return !clThread.bThreadRunning(); }, 5000));
            EXPECT_EQ(clThread.eRun(), CZTThread::START_OK);
            clThread.Stop(1);
            EXPECT_FALSE(clThread.bThreadRunning());
            CZTThread clStopped;
            EXPECT_NE(clStopped.eStart(pfnThread, nullptr, 0, 0), CZTThread::START_FAILED);
            clStopped.Stop(1);
            EXPECT_FALSE(clStopped.bThreadRunning());
        }
        CXError clError;
        STSleeper clEarly;
        EXPECT_FALSE(clEarly.bStart(tFunctions[5], nullptr, &g_stMyModule, 1, &clError, 1, 0));
        EXPECT_FALSE(clError.bIsSet());
    });
}

TEST(Thread, AThreadThatCannotBeCreatedIsAnError)
{
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to take on a user without processes";
    }
    InChild([] {
        const CSoftLimit clNone(RLIMIT_NPROC, 0);
        ASSERT_EQ(::setresuid(65534, 65534, 65534), 0);
        STSleeper clThread;
        CXError clError;
        const CStopwatch clTook;
        EXPECT_FALSE(clThread.bStart(&STSleeper::Run, &clThread, &g_stMyModule, 1, &clError, 1, 1));
        EXPECT_GE(clTook.nMs(), 10 * 40) << "tried again ten times";
        clThread.Stop(1);
        EXPECT_FALSE(clThread.bThreadRunning());
        EXPECT_EQ(clError.StringDump(CXError::INFO_MODULE), L"Module VelmoManager, message 3857");
        EXPECT_EQ(clError.nGetSystemError(), EAGAIN);
    });
}

TEST(Semaphore, AWaitTellsWhyItEnded)
{
    CZTSemNoInit clSem;
    EXPECT_EQ(clSem.TryWait(), CZTSemNoInit::SEM_FAILURE); // not set up yet
    ASSERT_EQ(clSem.Init(1, 1), CZTSemNoInit::SEM_OK);
    EXPECT_EQ(clSem.__Post(1), CZTSemNoInit::SEM_OK); // the maximum is not enforced
    EXPECT_EQ(clSem.WaitTimeout(0), CZTSemNoInit::SEM_OK);
    EXPECT_EQ(clSem.Wait(), CZTSemNoInit::SEM_OK);
    EXPECT_EQ(clSem.TryWait(), CZTSemNoInit::SEM_WOULD_BLOCK);
    const CStopwatch clTook;
    EXPECT_EQ(clSem.WaitTimeout(999), CZTSemNoInit::SEM_TIMEOUT); // carries into the next second
    EXPECT_TRUE(clTook.nMs() >= 990 && clTook.nMs() < 3000) << clTook.nMs();
}

TEST(Semaphore, LongWaitsEndWithAPostAndNeitherWithASignalNorWithTheDate)
{
    const auto pfnOld = signal(SIGUSR1, [](int) {});
    for (const unsigned int dwMs : {0xFFFFFFFFu, 0xFFFFFFFEu, 60'000u}) {
        CZTSemNoInit clSem;
        clSem.Init(0, 1);
        std::atomic<int> nResult{-1};
        std::atomic<pid_t> nWaiter{0};
        std::thread clWaiter([&] {
            nWaiter = ::gettid();
            nResult = clSem.WaitTimeout(dwMs);
        });

        // The kernel shows the call that a thread waits in: its number and its arguments.
        std::string csCall;
        std::string csOperation;
        EXPECT_TRUE(bWaitUntil(
            [&] {
                std::ifstream clFile("/proc/self/task/" + std::to_string(nWaiter) + "/syscall");
                return clFile >> csCall >> csOperation >> csOperation && csCall == std::to_string(SYS_futex);
            },
            5000));
        EXPECT_TRUE(dwMs == 0xFFFFFFFF || !(std::stoul(csOperation, nullptr, 16) & FUTEX_CLOCK_REALTIME));

        for (int n = 0; n < 20; ++n) {
            pthread_kill(clWaiter.native_handle(), SIGUSR1);
            usleep(1000);
        }
        EXPECT_EQ(nResult, -1);
        clSem.__Post(0);
        clWaiter.join();
        EXPECT_EQ(nResult, CZTSemNoInit::SEM_OK);
    }
    signal(SIGUSR1, pfnOld);
}
