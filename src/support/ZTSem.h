#pragma once

#include <semaphore.h>

/// Counting semaphore that Init sets up, not the constructor; before Init every operation fails. Private to
/// the process; any thread may use it between Init and Term.
class CZTSemNoInit
{
public:
    /// Results of the operations; the numbers are fixed.
    enum EResult : int
    {
        SEM_OK = 0,
        SEM_TIMEOUT = 1,
        SEM_FAILURE = 2,
        SEM_WOULD_BLOCK = 4,
    };
    static constexpr unsigned int s_dwInfinite = 0xFFFFFFFF;

    CZTSemNoInit() = default;
    CZTSemNoInit(const CZTSemNoInit&) = delete;
    CZTSemNoInit& operator=(const CZTSemNoInit&) = delete;
    ~CZTSemNoInit();

    /// Sets the semaphore up, anew if it was already. The maximum is ignored; a negative value fails.
    int Init(int nInitialValue, int nMaximum);
    void Term();
    /// Waits until the count is above 0 and takes one. Signals do not end this wait or the timed one.
    int Wait();
    /// As Wait, but SEM_WOULD_BLOCK at once when the count is 0.
    int TryWait();
    /// As Wait, but SEM_TIMEOUT after so many milliseconds; s_dwInfinite waits without limit.
    int WaitTimeout(unsigned int dwMs);
    /// Adds one to the count; with bYield lets another thread run then. Async-signal-safe when bYield is 0.
    int __Post(int bYield);
    int GetValue(int* pnValue);

private:
    sem_t m_stSem{};
    int m_bInitialised = 0;
};
