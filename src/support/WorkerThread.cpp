#include "support/WorkerThread.h"

#include "support/SignalMask.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <unistd.h>

namespace {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t s_nStackSize = 1u << 20; // instrumented frames are several times larger
#else
constexpr std::size_t s_nStackSize = 65536;
#endif

/// The C library refuses less than its minimum, which is 128 KiB on arm64.
std::size_t nStackSize()
{
    const long nMinimum = ::sysconf(_SC_THREAD_STACK_MIN);
    return std::max(s_nStackSize, nMinimum > 0 ? static_cast<std::size_t>(nMinimum) : 0);
}
} // namespace

int nCreateWorker(pthread_t* phThread, int nDetachState, void* (*pfnThread)(void*), void* pParameter)
{
    pthread_attr_t stAttributes;
    int nError = ::pthread_attr_init(&stAttributes);
    if (nError != 0) {
        return nError;
    }

    const std::unique_ptr<pthread_attr_t, int (*)(pthread_attr_t*)> clDestroyer(&stAttributes,
                                                                                ::pthread_attr_destroy);
    ::pthread_attr_setdetachstate(&stAttributes, nDetachState);
    nError = ::pthread_attr_setstacksize(&stAttributes, nStackSize());

    const CSignalsBlocked clBlocked{SIGTERM}; // the new thread inherits the mask
    return nError != 0 ? nError : ::pthread_create(phThread, &stAttributes, pfnThread, pParameter);
}
