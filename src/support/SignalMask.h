#pragma once

#include <cerrno>
#include <csignal>
#include <ctime>
#include <initializer_list>

/// Holds signals back in the calling thread for the object's lifetime; then the mask is the one from before,
/// and what came meanwhile is delivered. A thread created meanwhile has them held back for good.
/// Async-signal-safe, allocates nothing.
class CSignalsHeld
{
public:
    /// All signals.
    CSignalsHeld() noexcept
    {
        sigset_t stAll;
        ::sigfillset(&stAll);
        ::pthread_sigmask(SIG_SETMASK, &stAll, &m_stBefore);
    }
    /// These, beside those that are held back already.
    explicit CSignalsHeld(std::initializer_list<int> tSignals) noexcept
    {
        sigset_t stHeld;
        ::sigemptyset(&stHeld);
        for (const int nSignal : tSignals) {
            ::sigaddset(&stHeld, nSignal);
        }
        ::pthread_sigmask(SIG_BLOCK, &stHeld, &m_stBefore);
    }
    ~CSignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &m_stBefore, nullptr); }
    CSignalsHeld(const CSignalsHeld&) = delete;
    CSignalsHeld& operator=(const CSignalsHeld&) = delete;

    const sigset_t& stBefore() const noexcept { return m_stBefore; }

private:
    sigset_t m_stBefore;
};

/// Keeps SIGXFSZ from this thread: a write past the limit on file sizes is to fail with EFBIG, not to end the
/// process.
class CNoFileSizeSignal
{
public:
    CNoFileSizeSignal() = default;
    CNoFileSizeSignal(const CNoFileSizeSignal&) = delete;
    CNoFileSizeSignal& operator=(const CNoFileSizeSignal&) = delete;
    ~CNoFileSizeSignal()
    {
        const int nErrno = errno;
        if (sigismember(&m_clHeld.stBefore(), SIGXFSZ) == 0) {
            sigset_t stSignal;
            ::sigemptyset(&stSignal);
            ::sigaddset(&stSignal, SIGXFSZ);
            const timespec stNow{};
            ::sigtimedwait(&stSignal, nullptr, &stNow); // takes the signal back; none is as good
        }
        errno = nErrno;
    }

private:
    CSignalsHeld m_clHeld{SIGXFSZ};
};
