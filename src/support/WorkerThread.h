#pragma once

#include <pthread.h>

/// Creates a worker thread of the daemon. Its stack has 64 KiB, or the C library's minimum where that is
/// more, so nothing that runs on it may have large locals. It has SIGTERM blocked for good: a stop of the
/// daemon always reaches the main thread. nDetachState is PTHREAD_CREATE_DETACHED or PTHREAD_CREATE_JOINABLE.
/// Returns 0, or the error number (not in errno) when the thread was not created.
int nCreateWorker(pthread_t* phThread, int nDetachState, void* (*pfnThread)(void*), void* pParameter);
