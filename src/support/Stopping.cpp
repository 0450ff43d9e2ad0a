#include "support/Stopping.h"

#include "support/Descripteur.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <system_error>
#include <tuple>
#include <unistd.h>

// The stop begins in a signal handler, which may neither lock nor notify. It stores the time and makes a
// descriptor readable: the first is what everybody asks for, the second wakes those who sleep in poll.
std::atomic<long> CStopping::s_nAskedMs{0};

namespace {
static_assert(std::atomic<long>::is_always_lock_free); // the signal handler writes it

/// Pause between two looks of a thread that may go on after the stop, short beside the half second that it
/// has; and of one that may be cancelled.
constexpr int s_nLookMs = 20;
constexpr int s_nCancelLookMs = 100;
/// How much earlier than the manager a tool may get the SIGTERM that systemd sends to both.
constexpr int s_nSignalLeadMs = 100;

/// Ask writes to it once and nobody reads it, so it stays readable. Atomic: the signal handler loads it.
std::atomic<int> s_nWakeFd{-1};

/// The calling thread's right and cancel flag; see CStopRight.
thread_local CStopRight::ERight t_eRight = CStopRight::NOTHING;
thread_local const std::atomic<bool>* t_pbCancelled = nullptr;

/// Milliseconds of the monotonic clock plus one: never 0, which means "not asked". clock_gettime is
/// async-signal-safe.
long nMonotonicMs() noexcept
{
    timespec stNow{};
    ::clock_gettime(CLOCK_MONOTONIC, &stNow);
    return static_cast<long>(stNow.tv_sec) * 1000 + stNow.tv_nsec / 1'000'000 + 1;
}
} // namespace

void CStopping::Reset() noexcept
{
    s_nAskedMs = 0;
    const CDescripteur clOld(s_nWakeFd.exchange(-1)); // closes it
}

void CStopping::Prepare()
{
    // Closes the descriptor of an earlier call. A failure stores -1, which poll skips.
    const CDescripteur clOld(s_nWakeFd.exchange(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
}

void CStopping::Ask() noexcept
{
    // Only the first SIGTERM sets the time: otherwise a stop that is asked repeatedly would never be over.
    long nNever = 0;
    if (!s_nAskedMs.compare_exchange_strong(nNever, nMonotonicMs())) {
        return;
    }

    const int nErrno = errno; // a signal handler must not change what its thread is about to read
    constexpr std::uint64_t nOne = 1;
    std::ignore = ::write(s_nWakeFd, &nOne, sizeof nOne); // if it fails, sleepers notice the stop later
    errno = nErrno;
}

int CStopping::_nMsSinceAsked() noexcept
{
    constexpr long nHour = 3'600'000; // more than any caller distinguishes, and fits an int
    return static_cast<int>(std::min(nMonotonicMs() - s_nAskedMs.load(), nHour));
}

int CStopping::nAnswersLeftMs() noexcept
{
    return bAsked() ? std::max(s_nAnswersMs - _nMsSinceAsked(), 0) : s_nAnswersMs;
}

bool CStopping::bMayGoOn() noexcept
{
    if (bCancelled()) {
        return false;
    }

    switch (t_eRight) {
    case CStopRight::ANSWER:
        return !bAnswersOver();
    case CStopRight::WRITES:
        return !bOver();
    default:
        return !bAsked();
    }
}

bool CStopping::bCancellable() noexcept
{
    return t_pbCancelled != nullptr;
}

bool CStopping::bCancelled() noexcept
{
    return t_pbCancelled != nullptr && t_pbCancelled->load();
}

void CStopping::xThrowStopped()
{
    throw std::system_error(ECANCELED, std::generic_category());
}

void CStopping::xCheck()
{
    if (!bMayGoOn()) {
        xThrowStopped();
    }
}

int CStopping::nFdToPoll() noexcept
{
    return bAsked() ? -1 : s_nWakeFd.load();
}

int CStopping::nPollMs(int nMs) noexcept
{
    if (!bAsked() && t_pbCancelled == nullptr) {
        return nMs;
    }

    const int nLookMs = bAsked() ? s_nLookMs : s_nCancelLookMs;
    return nMs < 0 ? nLookMs : std::min(nMs, nLookMs);
}

bool CStopping::bSleep(int nMs) noexcept
{
    if (!bMayGoOn()) {
        return false;
    }

    pollfd stWake{nFdToPoll(), POLLIN, 0};
    ::poll(&stWake, 1, nPollMs(nMs));
    return bMayGoOn();
}

bool CStopping::bToolEndedByStop(unsigned int nExitCode) noexcept
{
    // Of a process that a signal ended, the launcher reports the signal's number as the exit code.
    if (nExitCode != SIGTERM) {
        return false;
    }

    // The tool's SIGTERM may come before ours: without this pause the stop would look like a failed tool.
    pollfd stWake{nFdToPoll(), POLLIN, 0};
    ::poll(&stWake, 1, bAsked() ? 0 : s_nSignalLeadMs);
    return bAsked() && bMayGoOn();
}

CStopRight::CStopRight(ERight eRight) noexcept : m_eBefore(t_eRight), m_pbCancelledBefore(t_pbCancelled)
{
    t_eRight = eRight;
}

CStopRight::CStopRight(const std::atomic<bool>* pbCancelled) noexcept
    : m_eBefore(t_eRight), m_pbCancelledBefore(t_pbCancelled)
{
    t_pbCancelled = pbCancelled;
}

CStopRight::~CStopRight()
{
    t_eRight = m_eBefore;
    t_pbCancelled = m_pbCancelledBefore;
}

void CStopWait::s_Pause(CLock& clLock, int nMs)
{
    clLock.unlock();
    pollfd stWake{CStopping::nFdToPoll(), POLLIN, 0};
    ::poll(&stWake, 1, CStopping::nPollMs(nMs)); // a signal may end it early: the caller then looks sooner
    clLock.lock();
}
