#pragma once

#include "service/ServiceLocks.h"

#include <memory>
#include <string>

class CDialog;
class CService;
class CServiceManager;

/// The commands of a conversation that act on one database server. Each reads its arguments from the dialog,
/// acts, and writes exactly one reply. Runs on the conversations' threads, several at once.
class CRemoteVelmoManager
{
public:
    /// The service manager is not owned.
    explicit CRemoteVelmoManager(CServiceManager* pclManager) : m_pclManager(pclManager) {}

    void Start(CDialog& clDialog);
    /// Bound to no keyword: the protocol has no stop command.
    void Stop(CDialog& clDialog);
    void GetStatus(CDialog& clDialog);
    /// Stops the server, deletes its directory when asked, unregisters it. That a completed deletion is
    /// answered with error 12 and leaves the service registered is intended.
    void UnInstall(CDialog& clDialog);
    void ClusterInfo(CDialog& clDialog);

private:
    /// The service that the dialog's next argument names; replies error 1 and returns null when there is
    /// none. With pclHold, the service's lock is taken for the caller before it is looked up (error 2 when
    /// the stop of the manager ends the wait for it).
    std::unique_ptr<CService> _pclFind(CDialog& clDialog, CServiceLocks::CHold* pclHold = nullptr);

    CServiceManager* m_pclManager;
};
