#pragma once

#include "main/Logger.h"
#include "main/ServiceUnix.h"
#include "manager/PingEcho.h"
#include "manager/PipeServerVelmoManager.h"
#include "manager/RemoteVelmoManager.h"
#include "manager/RestartOnFailed.h"
#include "manager/Server.h"
#include "manager/SharedListing.h"
#include "service/ServiceManagerUnix.h"
#include "support/StoppableLock.h"
#include "support/XYString.h"
#include "support/ZTSem.h"
#include "vm/Proxy.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

/// Proof that the service lock is held.
using CServiceGuard = std::unique_lock<CStoppableLock>;

/// The daemon's service implementation: owns the service registry, the endpoints, the logger and the language
/// runtime, starts and stops them in a fixed order, lists and registers the database servers.
///
/// One per process (gpclSetupManager), made and destroyed by main. bInitVM, bStart, MainLoop and the
/// destructor are the main thread's. AddServeurList, RegisterServer and csGetHostInfo may be called by any
/// endpoint's thread.
class CSetupManager : public CServiceImp
{
public:
    CSetupManager();
    ~CSetupManager() override;

    /// Loads the language runtime from the executable's directory; a failure is logged.
    bool bInitVM();
    /// Builds the host information and opens the endpoints' sockets. Called again, it appends the information
    /// again.
    bool bInit();

    void MainLoop() override;
    ILogger* pclGetLogger() override { return &m_clLogger; }
    bool bStart() override;
    /// Async-signal-safe.
    void Stop() override;
    /// Ends the endpoints and the monitor and waits for their threads; conversations go on. Does nothing to
    /// what does not run.
    void __TermMainLoop();
    bool vbLogStartOK() override { return true; }

    /// The service manager, for the command-line modes and the dialogs.
    CServiceManager* pclGetServiceManager() { return &m_clServiceManager; }
    CRemoteVelmoManager& clGetRemote() { return m_clRemote; }
    /// Takes the service lock. It serialises listings with registrations, not the commands on one server;
    /// nobody who holds it takes the lock of a service (CServiceLocks). Throws std::system_error when the
    /// stop ends the wait for it.
    CServiceGuard clLockServices() { return CServiceGuard(m_clServiceLock); }

    /// Version, system, processor and memory; fields separated by tabs. Written once before any endpoint
    /// runs.
    const CTString& csGetHostInfo() const { return m_csHostInfo; }
    /// Appends a tab, the name, a tab and the access port for each server service. One list, made under the
    /// service lock, serves all who wait for one. Throws when the stop ends it: half a list is no answer.
    /// Throws, and logs it, when the services cannot be listed.
    void AddServeurList(CTString* pcsReply);
    /// The configuration file of the server with this executable.
    static std::wstring s_csServersConfig(const std::wstring& csExecutable);
    /// Access port of a server as its own configuration has it, whatever text that is; the default when it
    /// does not say.
    static std::wstring s_csAccessPort(CService& clService);
    /// Makes sure that a service exists for this server's executable and runs. On refusal or failure the text
    /// goes into pcsError and the log. A refusal installs and starts nothing; a service whose start fails
    /// stays installed. Takes the locks of the services concerned, and within them, for all but the start,
    /// the service lock. Throws std::system_error when the stop ends a wait.
    void RegisterServer(STRegistration stServer, CTString* pcsError);

private:
    void __StopMainLoop();
    /// A failure is logged.
    bool _bStartPipe();
    void _HInfoServeur();
    void _AddVIInfo();
    void _AddOSInfo();
    void _AddCPU_RAM_Info();
    std::wstring _csMakeServeurList();
    void __AddServeurList(const CServiceGuard& clGuard, CService& clService, CTString* pcsReply);
    [[noreturn]] static void _FailListing(int nError);
    /// Message 4012 with all that the error tells below it, as one entry: of a failure that nobody else
    /// reports.
    void _LogError(const CXError& clError);
    /// A settings file that is not read.
    void _LogTooLarge(const std::wstring& csFile);
    /// Text from outside, logged as it is.
    void _LogText(const std::wstring& csText);

    /// What a service is to a server that registers.
    enum class EComparison
    {
        OTHER,
        SAME,     ///< the server's own service
        CONFLICT, ///< it has the server's name or port
    };
    /// What a look at all services has found for a server that registers.
    struct STFound
    {
        std::unique_ptr<CService> pclService;               ///< its own one; null: none
        std::vector<std::unique_ptr<CService>> tOtherNames; ///< those that have its executable
        bool bRefused = false;                              ///< a conflict, or the services cannot be listed
    };
    /// Of a refusal the text says why; it is logged.
    STFound _stFindServer(const CServiceGuard& clGuard, const STRegistration& stServer, CTString* pcsError);
    /// Looks for a service of the server's name that no listing holds: it is neither enabled nor running, and
    /// would be overwritten.
    void _FindUnlisted(const STRegistration& stServer, STFound* pstFound, CTString* pcsError);
    static void _RefuseUnasked(int nError, STFound* pstFound, CTString* pcsError);
    static EComparison _eCompare(CService& clService, const STRegistration& stServer, CTString* pcsError);
    /// Finds or installs the server's service, with its names locked in the end. Null, and the text set, when
    /// there is none.
    std::unique_ptr<CService> _pclMakeService(const STRegistration& stServer, CServiceLocks::CHold* pclHold,
                                              bool* pbInstalled, CTString* pcsError);
    /// Null with errno set when it cannot be installed.
    std::unique_ptr<CService> _pclInstallServer(const CServiceGuard& clGuard, const STRegistration& stServer);

    CServiceManager m_clServiceManager;
    CRemoteVelmoManager m_clRemote;
    CStoppableLock m_clServiceLock;
    CSharedListing m_clListing;
    CServer m_clServer;
    CPingEcho m_clPingEcho;
    CPipeServerVelmoManager m_clPipeServer;
    CProxyDll m_clRuntime;
    CLogger m_clLogger;
    CTString m_csHostInfo;
    std::unique_ptr<CRestartOnFailed> m_pclRestart;
    CZTSemNoInit m_clMainLoop;
};

/// The one setup manager; null outside main's Init to Term.
extern CSetupManager* gpclSetupManager;
