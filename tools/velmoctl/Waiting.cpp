#include "velmoctl/Waiting.h"

#include "support/Descripteur.h"
#include "velmoctl/Failure.h"

#include <algorithm>
#include <csignal>
#include <limits>
#include <sys/signalfd.h>
#include <vector>

namespace {
CDescripteur& clSignals()
{
    static CDescripteur s_clSignals;
    return s_clSignals;
}
} // namespace

Milliseconds CDeadline::clLeft() const
{
    // Rounded up: in the last millisecond a wait of 0 would spin.
    const auto clLeft = std::chrono::ceil<Milliseconds>(m_clEnd - std::chrono::steady_clock::now());
    return std::max(clLeft, Milliseconds::zero());
}

void CInterrupts::Catch()
{
    if (clSignals().bOpen()) {
        return;
    }

    sigset_t stSignals;
    sigemptyset(&stSignals);
    for (const int nSignal : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&stSignals, nSignal);
    }

    // A descriptor instead of handlers: a handler interrupts the wait of one thread only, and not one that is
    // about to begin.
    clSignals() = CDescripteur(::signalfd(-1, &stSignals, SFD_CLOEXEC | SFD_NONBLOCK));
    ::pthread_sigmask(SIG_BLOCK, &stSignals, nullptr);
}

int CInterrupts::nFd()
{
    return clSignals().nFd();
}

int CInterrupts::nTake()
{
    int nSignal = 0;
    for (signalfd_siginfo st{}; ::read(nFd(), &st, sizeof st) == sizeof st;) {
        nSignal = static_cast<int>(st.ssi_signo);
    }
    return nSignal;
}

bool bWaitForAny(std::span<pollfd> tWait, const CDeadline& clDeadline)
{
    std::vector<pollfd> tAll(tWait.begin(), tWait.end());
    tAll.push_back({CInterrupts::nFd(), POLLIN, 0});

    // At least one look, also after the deadline. A negative result means that a signal interrupted poll.
    int nReady = 0;
    do {
        // Cut to what fits an int; the loop waits for the rest.
        const auto nLeft = std::min<Milliseconds::rep>(clDeadline.clLeft().count(), 1'000'000);
        nReady = ::poll(tAll.data(), tAll.size(), static_cast<int>(nLeft));
    } while (nReady <= 0 && !clDeadline.bOver());

    if (nReady > 0 && tAll.back().revents != 0) {
        throw CFailure(EExit::INTERRUPTED, "interrupted");
    }

    std::copy(tAll.begin(), tAll.end() - 1, tWait.begin());
    return nReady > 0;
}

bool bWaitFor(int nFd, short nEvents, const CDeadline& clDeadline)
{
    pollfd stWait{nFd, nEvents, 0};
    return bWaitForAny({&stWait, 1}, clDeadline);
}
