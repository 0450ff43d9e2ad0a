#pragma once

#include <pthread.h>

/// Creates a thread as all of the daemon's workers are: with a stack of 64 KiB, or the system's minimum where
/// that is more (no large locals on its paths), and with SIGTERM held back for good, so that a stop of the
/// daemon always reaches the main thread. nDetached is PTHREAD_CREATE_DETACHED or PTHREAD_CREATE_JOINABLE.
/// Returns 0, or why there is no thread.
int nCreateWorker(pthread_t* phThread, int nDetached, void* (*pfnThread)(void*), void* pParameter);
