#pragma once

#include "support/ZTThread.h"

class CServiceManager;

/// A thread that looks at every "DXCS-" service once a period and starts those that have failed. A stopped
/// service is left alone, so that an administrator's stop is respected. Owned by the setup manager.
class CRestartOnFailed : public CZTThread
{
public:
    /// Period in seconds; 0 checks without pause. The product with 1000 wraps at 32 bits. The service manager
    /// is not owned.
    CRestartOnFailed(CServiceManager* pclManager, unsigned int dwPeriod);
    ~CRestartOnFailed() override;

    /// Throws CXError when the thread cannot be started.
    void xStart();
    /// Returns when the thread has ended; a pass in progress is finished first.
    void Stop();
    /// The thread's loop.
    void Run();

private:
    void __Check();

    unsigned int m_dwPeriod;
    CServiceManager* m_pclManager;
};
