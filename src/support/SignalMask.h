#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

/// Blocks signals in the calling thread for the object's lifetime. The destructor restores the old mask, and
/// signals that came meanwhile are delivered. A thread created meanwhile inherits the mask and keeps these
/// signals blocked. Async-signal-safe, allocates nothing.
class CSignalsBlocked
{
public:
    /// Blocks all signals.
    CSignalsBlocked() noexcept
    {
        sigset_t stAll;
        ::sigfillset(&stAll);
        ::pthread_sigmask(SIG_SETMASK, &stAll, &m_stBefore);
    }
    /// Blocks these signals in addition to those that are blocked already.
    explicit CSignalsBlocked(std::initializer_list<int> tSignals) noexcept
    {
        sigset_t stBlocked;
        ::sigemptyset(&stBlocked);
        for (const int nSignal : tSignals) {
            ::sigaddset(&stBlocked, nSignal);
        }
        ::pthread_sigmask(SIG_BLOCK, &stBlocked, &m_stBefore);
    }
    ~CSignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &m_stBefore, nullptr); }
    CSignalsBlocked(const CSignalsBlocked&) = delete;
    CSignalsBlocked& operator=(const CSignalsBlocked&) = delete;

    const sigset_t& stBefore() const noexcept { return m_stBefore; }

private:
    sigset_t m_stBefore;
};

/// Blocks and discards SIGXFSZ in this thread for the object's lifetime: a write past the limit on file sizes
/// then fails with EFBIG and does not end the process.
class CNoFileSizeSignal
{
public:
    CNoFileSizeSignal() = default;
    CNoFileSizeSignal(const CNoFileSizeSignal&) = delete;
    CNoFileSizeSignal& operator=(const CNoFileSizeSignal&) = delete;
    ~CNoFileSizeSignal()
    {
        const int nErrno = errno; // the write's, which the caller still reports

        // A signal that was blocked before stays blocked, and is not ours to discard.
        if (sigismember(&m_clBlocked.stBefore(), SIGXFSZ) == 0) {
            sigset_t stSignal;
            ::sigemptyset(&stSignal);
            ::sigaddset(&stSignal, SIGXFSZ);
            const timespec stNow{};
            ::sigtimedwait(&stSignal, nullptr, &stNow); // discards a pending one before it is unblocked
        }
        errno = nErrno;
    }

private:
    CSignalsBlocked m_clBlocked{SIGXFSZ};
};
