#include "support/ZTSem.h"

#include <cerrno>
#include <ctime>
#include <sched.h>

namespace {
/// The moment dwMs from now on the monotonic clock: a change of the date must not prolong a wait.
timespec stDeadline(unsigned int dwMs)
{
    constexpr long nNanosecondsPerSecond = 1'000'000'000;
    timespec stNow{};
    ::clock_gettime(CLOCK_MONOTONIC, &stNow);
    const long nNanoseconds = stNow.tv_nsec + static_cast<long>(dwMs % 1000) * 1'000'000;
    return {stNow.tv_sec + static_cast<time_t>(dwMs / 1000) + nNanoseconds / nNanosecondsPerSecond,
            nNanoseconds % nNanosecondsPerSecond};
}
} // namespace

CZTSemNoInit::~CZTSemNoInit()
{
    Term();
}

int CZTSemNoInit::Init(int nInitialValue, int /*nMaximum*/)
{
    Term();
    if (nInitialValue < 0 || ::sem_init(&m_stSem, 0, static_cast<unsigned int>(nInitialValue)) != 0) {
        return SEM_FAILURE;
    }
    m_bInitialised = 1;
    return SEM_OK;
}

void CZTSemNoInit::Term()
{
    if (m_bInitialised != 0) {
        m_bInitialised = 0;
        ::sem_destroy(&m_stSem);
    }
}

int CZTSemNoInit::Wait()
{
    // The state is looked at again after each signal: the owner may have called Term meanwhile.
    while (m_bInitialised != 0) {
        if (::sem_wait(&m_stSem) == 0) {
            return SEM_OK;
        }
        if (errno != EINTR) {
            break;
        }
    }
    return SEM_FAILURE;
}

int CZTSemNoInit::TryWait()
{
    while (m_bInitialised != 0) {
        if (::sem_trywait(&m_stSem) == 0) {
            return SEM_OK;
        }
        if (errno != EINTR) {
            return errno == EAGAIN ? SEM_WOULD_BLOCK : SEM_FAILURE;
        }
    }
    return SEM_FAILURE;
}

int CZTSemNoInit::WaitTimeout(unsigned int dwMs)
{
    if (dwMs == s_dwInfinite) {
        return Wait();
    }

    const timespec st = stDeadline(dwMs); // one for all tries: a signal must not prolong the wait
    while (m_bInitialised != 0) {
        if (::sem_clockwait(&m_stSem, CLOCK_MONOTONIC, &st) == 0) {
            return SEM_OK;
        }
        if (errno != EINTR) {
            return errno == ETIMEDOUT ? SEM_TIMEOUT : SEM_FAILURE;
        }
    }
    return SEM_FAILURE;
}

int CZTSemNoInit::__Post(int bYield)
{
    if (m_bInitialised == 0 || ::sem_post(&m_stSem) != 0) {
        return SEM_FAILURE;
    }
    if (bYield != 0) {
        ::sched_yield();
    }
    return SEM_OK;
}

int CZTSemNoInit::GetValue(int* pnValue)
{
    return m_bInitialised != 0 && ::sem_getvalue(&m_stSem, pnValue) == 0 ? SEM_OK : SEM_FAILURE;
}
