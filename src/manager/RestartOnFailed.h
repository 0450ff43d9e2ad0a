#pragma once

#include "manager/RestartWorkers.h"
#include "support/ZTThread.h"

class CServiceManager;

/// A thread that looks at every "DXCS-" service once a period and has those started that have failed. A
/// stopped service is left alone, so that an administrator's stop is respected. The starts run beside the
/// thread: no pass waits for one. Owned by the setup manager.
class CRestartOnFailed : public CZTThread
{
public:
    /// Period in seconds; 0 checks without pause. The product with 1000 wraps at 32 bits. The service manager
    /// is not owned.
    CRestartOnFailed(CServiceManager* pclManager, unsigned int dwPeriod);
    ~CRestartOnFailed() override;

    /// Throws CXError when the thread cannot be started.
    void xStart();
    /// Returns when the thread and the starts have ended: at once when the daemon stops, else when what is
    /// under way is done.
    void Stop();
    /// The thread's loop.
    void Run();

private:
    void __Check();

    unsigned int m_dwPeriod;
    CServiceManager* m_pclManager;
    CRestartWorkers m_clWorkers;
};
