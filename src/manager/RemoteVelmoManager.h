#pragma once

#include "service/ServiceLocks.h"

#include <memory>
#include <string>

class CDialog;
class CService;
class CServiceManager;

/// The commands of a conversation that act on one database server. Each reads its arguments from the dialog,
/// acts, and writes exactly one reply. Called by the conversations' threads, several at once.
class CRemoteVelmoManager
{
public:
    /// The service manager is not owned.
    explicit CRemoteVelmoManager(CServiceManager* pclManager) : m_pclManager(pclManager) {}

    void Start(CDialog& clDialog);
    /// Bound to no keyword: the protocol has no stop command.
    void Stop(CDialog& clDialog);
    void GetStatus(CDialog& clDialog);
    /// Stops the server, deletes its directory when asked to, unregisters it. A completed deletion is
    /// answered with error 12 and leaves the service registered: clients rely on it.
    void UnInstall(CDialog& clDialog);
    /// Answers whether the server is in a cluster, and the name of the cluster manager's machine.
    void ClusterInfo(CDialog& clDialog);

private:
    /// The service that the dialog's next argument names; null, after a reply with error 1, when there is
    /// none or it cannot be looked up. With pclHold, the service's lock is taken for the caller before the
    /// lookup. When the stop of the manager ends the wait for that lock, the result is null, too, and the
    /// reply error 2.
    std::unique_ptr<CService> _pclFind(CDialog& clDialog, CServiceLocks::CHold* pclHold = nullptr);

    CServiceManager* m_pclManager;
};
