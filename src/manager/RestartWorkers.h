#pragma once

#include "support/Stopping.h"

#include <deque>
#include <memory>
#include <set>
#include <string>

class CService;
class CServiceManager;

/// Starts servers again beside the restart monitor: several at once, each on a thread of its own, so that one
/// that hangs at its start holds up no other. The threads end when nothing is left to do.
class CRestartWorkers
{
public:
    /// Starts at once at most; more of them wait.
    static constexpr int s_nMaxWorkers = 8;

    /// The service manager is not owned.
    explicit CRestartWorkers(CServiceManager* pclManager) : m_pclManager(pclManager) {}
    ~CRestartWorkers() { Stop(); }
    CRestartWorkers(const CRestartWorkers&) = delete;
    CRestartWorkers& operator=(const CRestartWorkers&) = delete;

    /// Nothing has to be waited for before the next Stop.
    void Begin();
    /// Whether a restart of the service waits or is under way.
    bool bHas(const std::wstring& csName);
    /// Has the service started if it still is a failed one when its turn comes. Not of one that bHas.
    void Restart(std::unique_ptr<CService> pclService);
    /// Forgets what waits; returns when the threads have ended.
    void Stop();

private:
    static void* s_pThread(void* pWorkers);
    void __Run();
    void __Restart(CService& clService);
    void __StartWorker();

    CServiceManager* m_pclManager;
    CStopWait m_clWait; ///< of the members below
    bool m_bEnding = false;
    int m_nWorkers = 0;
    std::deque<std::unique_ptr<CService>> m_tWaiting;
    std::set<std::wstring> m_tNames; ///< waiting or under way
};
