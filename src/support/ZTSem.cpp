#include "support/ZTSem.h"

#include <cerrno>
#include <ctime>
#include <sched.h>
#include <sys/time.h>

namespace {
/// The moment that lies dwMs after now on the clock of the day, which is the one that sem_timedwait takes.
timespec stDeadline(unsigned int dwMs)
{
    constexpr long nMicrosecondsPerSecond = 1'000'000;
    timeval stNow{};
    ::gettimeofday(&stNow, nullptr);
    const long nMicroseconds = stNow.tv_usec + static_cast<long>(dwMs % 1000) * 1000;
    return {stNow.tv_sec + static_cast<time_t>(dwMs / 1000) + nMicroseconds / nMicrosecondsPerSecond,
            nMicroseconds % nMicrosecondsPerSecond * 1000};
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
    const timespec st = stDeadline(dwMs); // one for all tries, so that signals do not prolong the wait
    while (m_bInitialised != 0) {
        if (::sem_timedwait(&m_stSem, &st) == 0) {
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
