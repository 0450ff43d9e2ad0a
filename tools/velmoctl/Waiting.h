#pragma once

#include <chrono>
#include <poll.h>
#include <span>

using Milliseconds = std::chrono::milliseconds;

/// The moment at which a wait ends.
class CDeadline
{
public:
    explicit CDeadline(Milliseconds clFromNow) : m_clEnd(std::chrono::steady_clock::now() + clFromNow) {}

    /// So far away (a year) that no command lives to see it.
    static CDeadline Never() { return CDeadline(std::chrono::hours(24 * 365)); }

    /// What is left, never negative.
    Milliseconds clLeft() const;
    bool bOver() const { return clLeft().count() == 0; }

private:
    std::chrono::steady_clock::time_point m_clEnd;
};

/// Makes SIGINT, SIGTERM and SIGHUP end a command in an orderly way from the call of Catch on; before that
/// they have their usual effect. Catch blocks them in the calling thread and those that it starts later, so
/// call it in the main thread before there are others.
class CInterrupts
{
public:
    static void Catch();
    /// Readable while a caught signal has not been taken; -1 before Catch.
    static int nFd();
    /// Takes all caught signals, so that waits succeed again. Returns the number of the last; 0 when there
    /// was none.
    static int nTake();
};

/// Waits until one of the descriptors has what its events ask for (see revents), or an error; false at the
/// deadline. A negative descriptor is never ready. Throws CFailure (INTERRUPTED) while there is a caught
/// signal that nobody has taken, so in every thread that waits, and at once.
bool bWaitForAny(std::span<pollfd> tWait, const CDeadline& clDeadline);
/// The same for one descriptor. With -1: sleeps, and only a caught signal ends the sleep.
bool bWaitFor(int nFd, short nEvents, const CDeadline& clDeadline);
