#pragma once

#include "support/WorkerPool.h"

#include <memory>
#include <mutex>
#include <set>
#include <string>

class CService;
class CServiceManager;

/// Starts servers again beside the restart monitor: several at once, so that one that hangs at its start
/// holds up no other.
class CRestartWorkers
{
public:
    /// Starts at once at most; more of them wait.
    static constexpr int s_nMaxWorkers = 8;

    /// The service manager is not owned.
    explicit CRestartWorkers(CServiceManager* pclManager) : m_pclManager(pclManager) {}

    /// After a Stop: restarts may be asked for again.
    void Begin() { m_clPool.Begin(); }
    /// Whether a restart of the service waits or is under way.
    bool bHas(const std::wstring& csName);
    /// Has the service started if it still is a failed one when its turn comes. Not of one that bHas.
    void Restart(const std::shared_ptr<CService>& pclService);
    /// Forgets what waits; returns when what is under way is done.
    void Stop() { m_clPool.Stop(); }

private:
    /// The service's name, noted as long as the object lives.
    class CNote;
    void _Restart(CService& clService);

    CServiceManager* m_pclManager;
    std::mutex m_clLock; ///< of the names only
    std::set<std::wstring> m_tNames;
    CWorkerPool m_clPool{s_nMaxWorkers};
};
