#pragma once

#include "support/ZTThread.h"

#include <functional>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

/// Runs a function in a child process, for changes that a process cannot undo. A failed expectation there
/// fails the test.
inline void InChild(const std::function<void()>& fn)
{
    const pid_t nChild = ::fork();
    if (nChild == 0) {
        [&fn]() noexcept { fn(); }();
        ::_exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int nStatus = -1;
    EXPECT_EQ(::waitpid(nChild, &nStatus, 0), nChild);
    EXPECT_EQ(nStatus, 0) << "in the child process";
}

/// Runs a function to its end on a thread of the kind that the manager uses, with its small stack.
inline void OnWorker(std::function<void()> fn)
{
    CZTThread clWorker; // the destructor waits for the thread
    const auto Run = [](CZTThread* pclThread) {
        pclThread->Started();
        (*static_cast<std::function<void()>*>(pclThread->pGetParameter()))();
        pclThread->Stopped();
    };
    EXPECT_NE(clWorker.eStart(Run, &fn, 1, 0), CZTThread::START_FAILED);
}
