#include "service/LanceProcessus.h"
#include "service/ProcessManager.h"
#include "support/CloseRange.h"
#include "support/Conversion.h"
#include "support/DescriptorLimit.h"
#include "support/Shell.h"
#include "support/SignalMask.h"
#include "support/Stopping.h"
#include "tools/Command.h"
#include "tools/SoftLimit.h"
#include "tools/Stopwatch.h"
#include "tools/TempDir.h"
#include "tools/Wait.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <iostream>
#include <iterator>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {
class LanceProcessus : public ::testing::Test
{
protected:
    void SetUp() override { CLanceProcessus::sInit(); }
    void TearDown() override
    {
        EXPECT_TRUE(bWaitUntil([] { return CProcessManager::m_gpclManager->nCountRecords() == 0; }, 5000));
        CLanceProcessus::sTerm();
        errno = 0;
        EXPECT_FALSE(CLanceProcessus().bLanceProcessus(L"/bin/true", L"", nullptr)) << "without the manager";
        EXPECT_EQ(errno, ESHUTDOWN);
        EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "a child is left over";
    }

    /// Runs to the end with reading; the exit code, or 999.
    static unsigned int nRun(const std::wstring& csProgram, const std::wstring& csArguments,
                             std::string* pcsOutput)
    {
        CLanceProcessus cl;
        unsigned int nCode = 999;
        if (cl.bLanceProcessus(csProgram.c_str(), csArguments.c_str(), nullptr)) {
            EXPECT_TRUE(cl.bLitSortieEtAttendFinExecution(pcsOutput, &nCode));
        }
        return nCode;
    }
};

/// What fnBody returns in a process of its own, which may give up what the tests still need. The clone flags
/// make it the first process of a namespace.
int nInProcess(int nCloneFlags, const std::function<int()>& fnBody)
{
    const auto nPid = static_cast<pid_t>(::syscall(SYS_clone, nCloneFlags | SIGCHLD, 0, 0, 0, 0));
    if (nPid == 0) {
        ::_exit(fnBody());
    }
    int nStatus = 0;
    return nPid > 0 && ::waitpid(nPid, &nStatus, 0) == nPid && WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
}

/// What "ls" sees of its own: 3 is the folder that it reads.
constexpr char s_szStandardFds[] = "0\n1\n2\n3\n";

/// From now on this process's kernel has no close_range, and a close from this number on is the end.
bool bForgetCloseRange(unsigned int nFirstFatal)
{
    sock_filter tFilter[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close_range, 3, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __NR_close, 0, 3),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args)),
        BPF_JUMP(BPF_JMP | BPF_JGE | BPF_K, nFirstFatal, 2, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS),
    };
    const sock_fprog stProgram{std::size(tFilter), tFilter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &stProgram) == 0;
}
} // namespace

TEST_F(LanceProcessus, ChildGetsOnlyTheThreeStandardDescriptorsAndNoBlockedOrIgnoredSignal)
{
    const CDescripteur clLeak(::open("/dev/null", O_RDONLY)); // inheritable on purpose
    const CSignalsBlocked clBlocked{SIGTERM, SIGPIPE};
    ::signal(SIGHUP, SIG_IGN);
    std::string csFds;
    std::string csStatus;
    EXPECT_EQ(nRun(L"/bin/ls", L"-1 /proc/self/fd", &csFds), 0u);
    EXPECT_EQ(nRun(L"/bin/grep", L"-E Sig(Blk|Ign) /proc/self/status", &csStatus), 0u);
    ::signal(SIGHUP, SIG_DFL);
    EXPECT_EQ(csFds, s_szStandardFds);
    EXPECT_EQ(csStatus, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(LanceProcessus, WithoutCloseRangeAChildClosesWhatIsOpenAndNotEveryNumber)
{
    const int nResult = nInProcess(0, [] {
        for (int n = 0; n < 300; ++n) { // more than one block of the kernel's listing
            (void)::open("/dev/null", O_RDONLY);
        }
        const CSoftLimit clLimit(RLIMIT_NOFILE, 1000);
        if (!bForgetCloseRange(999)) {
            return 1;
        }

        std::string csFds;
        const unsigned int nCode = nRun(L"/bin/ls", L"-1 /proc/self/fd", &csFds);
        clLimit.Set(100); // below what is open, with room for the two pipes only
        for (int n = 50; n < 54; ++n) {
            ::close(n);
        }
        std::string csFdsAboveLimit;
        (void)nRun(L"/bin/ls", L"-1 /proc/self/fd", &csFdsAboveLimit);
        return nCode != 0 ? 2 : csFds != s_szStandardFds || csFdsAboveLimit != s_szStandardFds ? 3 : 0;
    });
    EXPECT_EQ(nResult, 0) << "1: no filter, 2: numbers were tried, 3: descriptors are left open";
}

TEST_F(LanceProcessus, ExitCodesAndMergedOutputArriveWhenTheChildEndsWhoeverKeepsThePipe)
{
    const CTempDir clDir;
    const struct
    {
        const char* pszName;
        const char* pszText;
        unsigned int nCode;
        const char* pszOutput = "";
        const char* pszArguments = "";
        int nMaxMs = 1000; ///< the end cuts a pause short
        bool bRead = true;
    } tCases[] = {
        {"plain", "#!/bin/sh\necho out; echo err >&2; exit 7", 7, "out\nerr\n"},
        {"words", "#!/bin/sh\nprintf '%s|' \"$@\"", 0, "a|b  c|;d|$e||f\"g|h\"i|open end|",
         "  a \"b  c\" ;d $e \"\" f\"g h\"i \"open end"},
        {"killed", "#!/bin/sh\nkill -9 $$", 9},
        {"no-interpreter", "#!/does/not/exist\n", 127},
        {"no-magic", "echo shell", 0, "shell\n"},
        {"reads-input", "#!/bin/sh\ncat; echo end", 0, "end\n"},
        {"closes-output", "#!/bin/sh\nexec 1>&- 2>&-; sleep 0.2; exit 3", 3},
        {"is-silent", "#!/bin/sh\nexec sleep 0.2", 0},
        {"grandchild", "#!/bin/sh\nsleep 9 &\nexit 4", 4, "", "", 5000},
        {"grandchild-unread", "#!/bin/sh\nsleep 2 &\nexit 5", 5, "", "", 1500, false},
        {"megabyte-unread", "#!/bin/sh\nexec head -c 1048576 /dev/zero", 0, "", "", 800, false},
    };
    for (const auto& st : tCases) {
        SCOPED_TRACE(st.pszName);
        const std::wstring csPath = csFromUTF8(clDir.csWrite(st.pszName, st.pszText, 0755));
        CLanceProcessus cl;
        unsigned int nCode = 999;
        std::string csOutput;
        const CStopwatch clTook;
        ASSERT_TRUE(cl.bLanceProcessus(csPath.c_str(), csFromUTF8(st.pszArguments).c_str(), nullptr));
        EXPECT_TRUE(st.bRead ? cl.bLitSortieEtAttendFinExecution(&csOutput, &nCode)
                             : cl.bAttendFinExecution(&nCode));
        EXPECT_LT(clTook.nMs(), st.nMaxMs);
        EXPECT_EQ(nCode, st.nCode);
        EXPECT_EQ(csOutput, st.pszOutput);
    }

    std::string csOutput;
    EXPECT_EQ(nRun(L"/does/not/exist", L"", &csOutput), 999u);
    std::wstring csWords;
    for (int n = 0; n < 60; ++n) {
        csWords += L"w" + std::to_wstring(n) + L" ";
    }
    EXPECT_EQ(nRun(L"/bin/echo", csWords, &csOutput), 0u);
    EXPECT_TRUE(csOutput.ends_with(" w48\n")) << csOutput << "fifty with the program, the rest is ignored";
}

TEST_F(LanceProcessus, AChildThatPrintsMoreThanItsLimitIsKilledAndHasFailed)
{
    constexpr std::size_t nLimit = 3'000'000;
    for (const auto& [pszArguments, bFits] : {std::pair{L"-c \"head -c 3000000 /dev/zero\"", true},
                                              {L"-c \"head -c 3000001 /dev/zero; sleep 5\"", false}}) {
        SCOPED_TRACE(pszArguments);
        for (const bool bRead : {true, false}) {
            CLanceProcessus cl;
            cl.LimitOutput(nLimit);
            unsigned int nCode = 999;
            std::string csOutput;
            ASSERT_TRUE(cl.bLanceProcessus(L"/bin/sh", pszArguments, nullptr));
            errno = 0;
            EXPECT_EQ(cl.bLitSortieEtAttendFinExecution(bRead ? &csOutput : nullptr, &nCode), bFits);
            EXPECT_TRUE(cl.bProcessusTermine());
            EXPECT_EQ(errno == EFBIG, !bFits);
            EXPECT_LT(csOutput.capacity(), nLimit + 4096) << "nor is room for more taken";
            EXPECT_TRUE(!bRead || !bFits || csOutput.size() == nLimit);
        }
    }
}

TEST_F(LanceProcessus, ChildrenThatAreLetGoRunOnAndAreReapedEvenWhenTwoEndBehindOneSignal)
{
    const CTempDir clDir;
    const std::wstring csLate = csFromUTF8(
        clDir.csWrite("late", "#!/bin/sh\nsleep 0.2\necho late >>" + clDir.csPath("mark") + "\n", 0755));
    CLanceProcessus cl;
    const CSignalsBlocked clBlocked{SIGCHLD};
    ASSERT_TRUE(cl.bLanceProcessus(csLate.c_str(), L"", nullptr));
    ASSERT_TRUE(cl.bLanceProcessus(csLate.c_str(), L"", nullptr)) << "which lets go of the first";
    cl.bLibere();
    EXPECT_EQ(CProcessManager::m_gpclManager->nCountRecords(), 2);
    const std::string csCountEnded = "pgrep -c -r Z -P " + std::to_string(::getpid());
    EXPECT_TRUE(bWaitUntil([&] { return stRun(csCountEnded).csOutput == "2\n"; }, 5000));
    EXPECT_EQ(clDir.csRead("mark"), "late\nlate\n");
}

TEST_F(LanceProcessus, AnEndedChildIsNotMistakenForOneThatGotItsNumber)
{
    const int nResult = nInProcess(CLONE_NEWPID, [] {
        CLanceProcessus clEnded;
        CLanceProcessus clNext;
        unsigned int nEnded = 0;
        unsigned int nNext = 0;
        // The first child of this namespace is process 2; so is the next one, once it may be.
        const bool bFirst = clEnded.bLanceProcessus(L"/bin/sh", L"-c \"exit 3\"", nullptr) &&
                            clEnded.bAttendFinExecution(nullptr);
        if (!std::ofstream("/proc/sys/kernel/ns_last_pid").put('1').flush()) {
            return 77;
        }
        const bool bSecond = clNext.bLanceProcessus(L"/bin/sh", L"-c \"sleep 0.2; exit $$\"", nullptr) &&
                             clNext.bAttendFinExecution(&nNext);
        return bFirst && bSecond && clEnded.bAttendFinExecution(&nEnded) && nEnded == 3 && nNext == 2 ? 0 : 1;
    });
    if (nResult < 0 || nResult == 77) {
        GTEST_SKIP() << "SKIPPED: process numbers can be chosen by root only";
    }
    EXPECT_EQ(nResult, 0);
}

TEST_F(LanceProcessus, ARaisedDescriptorLimitIsUsedBeyondTheSelectSetAndNotInherited)
{
    const CSoftLimit clStartedWith(RLIMIT_NOFILE, 200);
    if (clStartedWith.nHard() < 2000) {
        GTEST_SKIP() << "SKIPPED: hard descriptor limit below 2000";
    }
    RaiseDescriptorLimit();
    RaiseDescriptorLimit(); // a second time it must not take the raised limit for the first one
    rlimit stRaised{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &stRaised), 0);
    ASSERT_EQ(stRaised.rlim_cur, clStartedWith.nHard());
    EXPECT_EQ(nShell("test \"$(ulimit -Sn)\" = 200"), 0);

    std::vector<CDescripteur> tFill;
    while (tFill.empty() || tFill.back().nFd() < 1100) { // select() takes 1024
        tFill.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
    std::string csOutput;
    EXPECT_EQ(nRun(L"/bin/sh", L"-c \"ulimit -Sn\"", &csOutput), 0u);
    EXPECT_EQ(csOutput, "200\n");
}

TEST_F(LanceProcessus, ManyThreadsLaunchingAtOnceLoseNoChildNoCodeAndNoOutput)
{
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
    constexpr int nRounds = 20;
#else
    // 16 threads with three launches a round: 20,000 launches in all, or a million
    const int nRounds = ::getenv("VELMO_LONG") != nullptr ? 20834 : 416;
#endif
    const CTempDir clDir;
    const std::wstring csBroken = csFromUTF8(clDir.csWrite("broken", "#!/does/not/exist\n", 0755));
    std::atomic<int> nWrong{0};
    const CStopwatch clTook;
    std::vector<std::jthread> tThreads;
    for (int n = 0; n < 16; ++n) {
        tThreads.emplace_back([&] {
            for (int nRound = 0; nRound < nRounds; ++nRound) {
                std::string csOutput;
                nWrong += nRun(L"/bin/true", L"", nullptr) != 0 ? 1 : 0;
                nWrong += nRun(L"/usr/bin/head", L"-c 102400 /dev/zero", &csOutput) != 0 ? 1 : 0;
                nWrong += csOutput.size() != 102400 ? 1 : 0;
                nWrong += nRun(csBroken, L"", nullptr) != 127 ? 1 : 0;
            }
        });
    }
    tThreads.clear(); // once they have ended
    EXPECT_EQ(nWrong, 0);
    std::cout << "FIGURE " << 48 * nRounds << " launches by 16 threads in " << clTook.nMs() << " ms\n";
}

TEST_F(LanceProcessus, AStopEndsEachWaitWhenItsThreadHasNoRightToGoOn)
{
    const auto bRuns = [](bool bRead) {
        CLanceProcessus cl;
        return cl.bLanceProcessus(L"/bin/sleep", L"1.5", nullptr) &&
               (bRead ? cl.bLitSortieEtAttendFinExecution(nullptr, nullptr)
                      : cl.bAttendFinExecution(nullptr));
    };
    const std::function<bool()> tWaits[] = {
        [] { return nShell("sleep 1.5") != -1; },
        [&] { return bRuns(true); },
        [&] { return bRuns(false); },
    };
    const std::tuple<CStopRight::ERight, bool, long> tRights[] = {
        // right, cancelled, milliseconds after the stop
        {CStopRight::NOTHING, false, 0},
        {CStopRight::ANSWER, false, 500},
        {CStopRight::ANSWER, true, 0},
        {CStopRight::WRITES, false, 1000},
    };
    for (const auto& bWait : tWaits) {
        for (const auto& [eRight, bCancelled, nMs] : tRights) {
            SCOPED_TRACE(eRight);
            CStopping::Reset();
            CStopping::Prepare();
            const std::atomic<bool> bCancel{bCancelled};
            const std::jthread clStop([] {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));
                CStopping::Ask();
            });
            const CStopRight clRight(eRight);
            const CStopRight clUntilCancelled(&bCancel);
            const CStopwatch clTook;
            EXPECT_FALSE(bWait());
            EXPECT_EQ(errno, ECANCELED);
            EXPECT_GE(clTook.nMs(), bCancelled ? 0 : 100 + nMs - 1);
            EXPECT_LE(clTook.nMs(), 100 + nMs + 300);
            const CStopwatch clAgain;
            EXPECT_FALSE(bWait());
            EXPECT_LT(clAgain.nMs(), 100) << "nothing is launched any more";
        }
    }
    CStopping::Reset();
    EXPECT_TRUE(bWaitUntil([] { return CProcessManager::m_gpclManager->nCountRecords() == 0; }, 5000));
    while (::waitpid(-1, nullptr, 0) > 0) { // the shells, which nobody has reaped
    }
}
