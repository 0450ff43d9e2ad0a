#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <tuple>

/// How far the end of the process has come. A stop has three steps, counted from SIGTERM:
///
/// | step | from | what it means |
/// |---|---|---|
/// | asked | 0 s | no request, pass or registration begins; whoever waits for a lock leaves |
/// | answers over | 0.5 s | conversations that had begun their answer give it up |
/// | over | 1 s | a registration that had begun to write gives it up; nobody launches anything |
///
/// One state for the process; every operation may be called by any thread.
class CStopping
{
public:
    static constexpr int s_nAnswersMs = 500;
    static constexpr int s_nWritesMs = 1000;

    /// Nothing is asked (any more). For the owner of all threads, while none of them runs.
    static void Reset() noexcept;
    /// Makes the descriptor that wakes sleepers. Without it (no descriptor left, or never called) a stop is
    /// noticed when the sleep is over.
    static void Prepare();
    /// The stop has come; only the first call counts. Async-signal-safe.
    static void Ask() noexcept;

    static bool bAsked() noexcept { return s_nAskedMs.load() != 0; }
    static bool bAnswersOver() noexcept { return bAsked() && _nMsSinceAsked() >= s_nAnswersMs; }
    static bool bOver() noexcept { return bAsked() && _nMsSinceAsked() >= s_nWritesMs; }
    /// What conversations still have for their answers, in milliseconds.
    static int nAnswersLeftMs() noexcept;

    /// Whether the calling thread may still launch tools and wait for them. Without a CStopRight: until the
    /// stop is asked.
    static bool bMayGoOn() noexcept;
    /// Whether what the calling thread does may be taken back before it is done.
    static bool bCancellable() noexcept;
    /// Whether somebody has taken back what the calling thread does (see CStopRight).
    static bool bCancelled() noexcept;
    /// Throws std::system_error (ECANCELED).
    [[noreturn]] static void xThrowStopped();
    /// As xThrowStopped, when the calling thread may not go on.
    static void xCheck();
    /// Sleeps; false at once when the calling thread may not go on. May end early when the stop is asked.
    static bool bSleep(int nMs) noexcept;
    /// For a poll beside other descriptors: becomes readable when the stop is asked, and stays so; hence -1
    /// from then on, which poll passes over.
    static int nFdToPoll() noexcept;
    /// Longest sleep, of at most nMs milliseconds (below 0: without limit), for a thread that polls
    /// nFdToPoll: whoever may go on for a while after the stop, or may be cancelled, has to look again soon.
    static int nPollMs(int nMs) noexcept;
    /// Whether a tool that ended with this code was ended by the stop (systemd signals the whole group, and
    /// its signal may reach a tool first) while the calling thread may go on: then it is asked once more.
    static bool bToolEndedByStop(unsigned int nExitCode) noexcept;

private:
    static int _nMsSinceAsked() noexcept;

    static std::atomic<long> s_nAskedMs; ///< monotonic; 0: not asked
};

/// What the calling thread may finish after the stop, for the object's lifetime. They may be nested.
class CStopRight
{
public:
    enum ERight : int
    {
        NOTHING, ///< monitor, discovery, a registration that only reads
        ANSWER,  ///< a conversation's command
        WRITES,  ///< a registration that has begun to write
    };
    explicit CStopRight(ERight eRight) noexcept;
    /// The right that the thread has already, until *pbCancelled becomes true. The flag must outlive the
    /// object.
    explicit CStopRight(const std::atomic<bool>* pbCancelled) noexcept;
    ~CStopRight();
    CStopRight(const CStopRight&) = delete;
    CStopRight& operator=(const CStopRight&) = delete;

private:
    ERight m_eBefore;
    const std::atomic<bool>* m_pbCancelledBefore;
};

/// A lock with a condition that threads wait for: they look again after 1 ms, 2 ms and so on, up to 100 ms,
/// and at once when the stop is asked.
class CStopWait
{
public:
    using CLock = std::unique_lock<std::mutex>;

    CStopWait() = default;
    CStopWait(const CStopWait&) = delete;
    CStopWait& operator=(const CStopWait&) = delete;

    CLock clLock() { return CLock(m_clMutex); }
    /// Waits until bReady() or bLeave() holds, and returns the former. Both are called with the lock held,
    /// which is free between two looks.
    template <class TReady, class TLeave>
    static bool bWait(CLock& clLock, TReady bReady, TLeave bLeave)
    {
        for (int nMs = 1; !bReady(); nMs = std::min(nMs + 1, s_nMaxPauseMs)) {
            if (bLeave()) {
                return false;
            }
            s_Pause(clLock, nMs);
        }
        return true;
    }
    /// Waits until bReady() holds, for a time at most.
    template <class TReady>
    static void WaitFor(CLock& clLock, std::chrono::milliseconds clTime, TReady bReady)
    {
        const auto clEnd = std::chrono::steady_clock::now() + clTime;
        std::ignore = bWait(clLock, bReady, [clEnd] { return std::chrono::steady_clock::now() >= clEnd; });
    }

private:
    static constexpr int s_nMaxPauseMs = 100;
    static void s_Pause(CLock& clLock, int nMs);

    std::mutex m_clMutex;
};
