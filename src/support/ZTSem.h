#pragma once

#include <semaphore.h>

/// Counting semaphore whose set-up is separate from its construction. Process-private, any thread.
class CZTSemNoInit
{
public:
    /// Results of the operations.
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

    /// The maximum is not enforced.
    int Init(int nInitialValue, int nMaximum);
    void Term();
    int Wait();
    int TryWait();
    /// Milliseconds; s_dwInfinite waits without limit. Interruptions by signals do not end the wait.
    int WaitTimeout(unsigned int dwMs);
    /// Async-signal-safe when bYield is 0.
    int __Post(int bYield);
    int GetValue(int* pnValue);

private:
    sem_t m_stSem{};
    int m_bInitialised = 0;
};
