#pragma once

#include "manager/RestartWorkers.h"
#include "support/ZTThread.h"

class CServiceManager;

/// A thread that looks at every "DXCS-" service once a period and has the failed ones started. A stopped
/// service is left alone, out of respect for an administrator's stop. The starts run on threads of their own:
/// no pass waits for one. Owned by the setup manager.
class CRestartOnFailed : public CZTThread
{
public:
    /// The period is in seconds; 0 checks without pause. Its milliseconds are counted in 32 bits, so a period
    /// of 50 days or more wraps around to a shorter one. The service manager is not owned.
    CRestartOnFailed(CServiceManager* pclManager, unsigned int dwPeriod);
    ~CRestartOnFailed() override;

    /// Throws CXError when the thread cannot be started.
    void xStart();
    /// Returns when the thread and the starts have ended. During the stop of the daemon that is at once, else
    /// when the starts under way are done.
    void Stop();
    /// The thread's loop.
    void Run();

private:
    /// One pass over the services.
    void __Check();

    unsigned int m_dwPeriod; ///< seconds
    CServiceManager* m_pclManager;
    CRestartWorkers m_clWorkers;
};
