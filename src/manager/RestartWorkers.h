#pragma once

#include "support/WorkerPool.h"

#include <memory>
#include <mutex>
#include <set>
#include <string>

class CService;
class CServiceManager;

/// Starts failed servers again for the restart monitor, several at once, so that one that hangs at its start
/// delays no other.
class CRestartWorkers
{
public:
    /// Most starts at once; further ones wait.
    static constexpr int s_nMaxWorkers = 8;

    /// The service manager is not owned.
    explicit CRestartWorkers(CServiceManager* pclManager) : m_pclManager(pclManager) {}

    /// Allows restarts again after a Stop.
    void Begin() { m_clPool.Begin(); }
    /// Whether a restart of the service waits or is under way.
    bool bHas(const std::wstring& csName);
    /// Starts the service on a thread of the pool, if it is still failed when its turn comes. Not for a
    /// service that bHas reports: each name is noted once, and the first restart to end would drop the note
    /// of both.
    void Restart(const std::shared_ptr<CService>& pclService);
    /// Drops the restarts that wait; returns when those under way are done.
    void Stop() { m_clPool.Stop(); }

private:
    /// Keeps a service's name in m_tNames for the object's lifetime.
    class CNote;
    void _Restart(CService& clService);

    CServiceManager* m_pclManager;
    std::mutex m_clLock; ///< of the names only
    std::set<std::wstring> m_tNames;
    CWorkerPool m_clPool{s_nMaxWorkers};
};
