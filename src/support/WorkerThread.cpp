#include "support/WorkerThread.h"

#include "support/SignalMask.h"

#include <cstddef>
#include <memory>

namespace {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t s_nStackSize = 1u << 20; // instrumented frames are several times larger
#else
constexpr std::size_t s_nStackSize = 65536;
#endif
} // namespace

int nCreateWorker(pthread_t* phThread, int nDetached, void* (*pfnThread)(void*), void* pParameter)
{
    pthread_attr_t stAttributes;
    int nError = ::pthread_attr_init(&stAttributes);
    if (nError != 0) {
        return nError;
    }
    const std::unique_ptr<pthread_attr_t, int (*)(pthread_attr_t*)> clDestroyer(&stAttributes,
                                                                                ::pthread_attr_destroy);
    ::pthread_attr_setdetachstate(&stAttributes, nDetached);
    nError = ::pthread_attr_setstacksize(&stAttributes, s_nStackSize);
    const CSignalsHeld clHeld{SIGTERM}; // inherited by the new thread
    return nError != 0 ? nError : ::pthread_create(phThread, &stAttributes, pfnThread, pParameter);
}
