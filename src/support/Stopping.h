#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <tuple>

/// How far the stop of the process has come. It has three steps, counted from SIGTERM:
///
/// | step | from | what it means |
/// |---|---|---|
/// | asked | 0 s | no request, pass or registration begins; threads that wait for a lock leave |
/// | answers over | 0.5 s | conversations give up answers that they have begun |
/// | over | 1 s | a registration that has begun to write gives up; nobody launches anything |
///
/// One state for the process; any thread may call any operation.
class CStopping
{
public:
    static constexpr int s_nAnswersMs = 500;
    static constexpr int s_nWritesMs = 1000;

    /// Forgets a stop. For the owner of all threads, while none of them runs.
    static void Reset() noexcept;
    /// Opens the descriptor that wakes sleepers. Without it (out of descriptors, or never called) a sleeper
    /// notices the stop at the end of its sleep.
    static void Prepare();
    /// Begins the stop; only the first call counts. Async-signal-safe.
    static void Ask() noexcept;

    static bool bAsked() noexcept { return s_nAskedMs.load() != 0; }
    static bool bAnswersOver() noexcept { return bAsked() && _nMsSinceAsked() >= s_nAnswersMs; }
    static bool bOver() noexcept { return bAsked() && _nMsSinceAsked() >= s_nWritesMs; }
    /// Milliseconds that conversations still have for their answers.
    static int nAnswersLeftMs() noexcept;

    /// Whether the calling thread may still launch tools and wait for them. A thread without a CStopRight may
    /// until the stop is asked.
    static bool bMayGoOn() noexcept;
    /// Whether somebody may cancel the calling thread's work (see CStopRight).
    static bool bCancellable() noexcept;
    /// Whether somebody has cancelled the calling thread's work.
    static bool bCancelled() noexcept;
    /// Throws std::system_error (ECANCELED).
    [[noreturn]] static void xThrowStopped();
    /// As xThrowStopped, when the calling thread may not go on.
    static void xCheck();
    /// Sleeps for nMs milliseconds at most: a stop or a signal may end the sleep early. Returns whether the
    /// calling thread may go on; when it may not, there is no sleep.
    static bool bSleep(int nMs) noexcept;
    /// A descriptor to poll beside others: it becomes readable when the stop is asked. After that the result
    /// is -1, which poll skips: the descriptor stays readable, and a thread that may go on would poll in a
    /// tight loop.
    static int nFdToPoll() noexcept;
    /// The time-out to poll nFdToPoll with, for a sleep of nMs milliseconds (below 0: without limit). Limited
    /// to 20 ms after the stop, and to 100 ms for a thread that may be cancelled: no descriptor wakes these
    /// when they may not go on any more, so they must look from time to time.
    static int nPollMs(int nMs) noexcept;
    /// Whether the stop ended a tool with this exit code while the calling thread may go on; the caller then
    /// runs the tool once more. systemd signals the whole control group, so a tool gets the SIGTERM as well,
    /// perhaps before the manager does. When SIGTERM ended the tool, waits up to 100 ms for the manager's
    /// own.
    static bool bToolEndedByStop(unsigned int nExitCode) noexcept;

private:
    static int _nMsSinceAsked() noexcept;

    static std::atomic<long> s_nAskedMs; ///< monotonic; 0: not asked
};

/// Says, for the object's lifetime, what the calling thread may finish after the stop, or who may cancel its
/// work. Objects may be nested: each replaces only what it sets, so within a new right the outer object's
/// cancel flag still counts.
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
    /// Keeps the thread's right and lets another thread cancel it by setting *pbCancelled, which must outlive
    /// the object.
    explicit CStopRight(const std::atomic<bool>* pbCancelled) noexcept;
    ~CStopRight();
    CStopRight(const CStopRight&) = delete;
    CStopRight& operator=(const CStopRight&) = delete;

private:
    ERight m_eBefore;
    const std::atomic<bool>* m_pbCancelledBefore;
};

/// A lock with a condition that threads wait for. They look at the condition again and again, with pauses of
/// 1 ms, 2 ms and so on up to 100 ms between the looks, and at once when the stop is asked. A condition
/// variable would not do: the signal handler that begins the stop may not notify one.
class CStopWait
{
public:
    using CLock = std::unique_lock<std::mutex>;

    CStopWait() = default;
    CStopWait(const CStopWait&) = delete;
    CStopWait& operator=(const CStopWait&) = delete;

    CLock clLock() { return CLock(m_clMutex); }
    /// Waits until bReady() or bLeave() holds, and returns whether bReady() does. Both are called with the
    /// lock held; between two looks it is free.
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
    /// Waits until bReady() holds, but no longer than clTime.
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
