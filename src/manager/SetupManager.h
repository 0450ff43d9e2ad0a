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

/// The daemon itself: owns the service registry, the endpoints, the logger and the language runtime, starts
/// and stops them in a fixed order, lists and registers the database servers.
///
/// There is one per process (gpclSetupManager), made and destroyed by main. The main thread calls bInitVM,
/// bStart, MainLoop and the destructor; any endpoint's thread may call AddServeurList, RegisterServer,
/// clGetRemote and csGetHostInfo.
class CSetupManager : public CServiceImp
{
public:
    CSetupManager();
    ~CSetupManager() override;

    /// Loads the language runtime from the executable's directory; a failure is logged.
    bool bInitVM();
    /// Builds the host information, detects the init system and opens the sockets of the TCP server and the
    /// ping echo. False when a socket cannot be opened, which is logged. A second call appends the
    /// information once more.
    bool bInit();

    /// Waits for Stop, then ends what bStart has started.
    void MainLoop() override;
    ILogger* pclGetLogger() override { return &m_clLogger; }
    bool bStart() override;
    /// Begins the stop and wakes MainLoop. Async-signal-safe.
    void Stop() override;
    /// Begins the stop if nobody has. Ends the endpoints and the monitor and waits for their threads;
    /// conversations go on. What does not run is left alone.
    void __TermMainLoop();
    bool vbLogStartOK() override { return true; }

    /// The service registry, for the command-line modes and the conversations.
    CServiceManager* pclGetServiceManager() { return &m_clServiceManager; }
    CRemoteVelmoManager& clGetRemote() { return m_clRemote; }
    /// Takes the service lock, which serialises listings and registrations, not the commands on one server.
    /// Whoever has it must not take the lock of a service's name (CServiceLocks): that may wait for a start
    /// that hangs. Throws std::system_error when the stop ends the wait.
    CServiceGuard clLockServices() { return CServiceGuard(m_clServiceLock); }

    /// Version, system, processor and memory, separated by tabs. Written once, before any endpoint runs, so
    /// it needs no lock.
    const CTString& csGetHostInfo() const { return m_csHostInfo; }
    /// Appends a tab, the name, a tab and the access port for each server service. One list, made under the
    /// service lock, serves all who wait for one. Throws when the stop cuts the list short, and when the
    /// services cannot be listed, which is logged: half a list is no answer.
    void AddServeurList(CTString* pcsReply);
    /// Path of the configuration file of the server with this executable.
    static std::wstring s_csServersConfig(const std::wstring& csExecutable);
    /// Access port of a server, exactly as its own configuration says it, even if that is no number; the
    /// default when it does not.
    static std::wstring s_csAccessPort(CService& clService);
    /// Makes sure that a service exists for this server's executable and runs. The reason of a refusal or
    /// failure goes into pcsError and the log. A refusal installs and starts nothing; a service whose start
    /// fails stays installed, unless systemd refuses its unit. Takes the locks of the names concerned, and
    /// within them, for all but the start, the service lock. Throws std::system_error when the stop ends a
    /// wait.
    void RegisterServer(STRegistration stServer, CTString* pcsError);

private:
    void __StopMainLoop();
    /// A failure is logged.
    bool _bStartPipe();
    /// Fills m_csHostInfo, by the three after it: version; system and kernel; processors and memory.
    void _HInfoServeur();
    void _AddVIInfo();
    void _AddOSInfo();
    void _AddCPU_RAM_Info();
    /// What AddServeurList appends, for all who wait for it. Throws as AddServeurList does.
    std::wstring _csMakeServeurList();
    void __AddServeurList(const CServiceGuard& clGuard, CService& clService, CTString* pcsReply);
    /// Logs that the services could not be listed, and throws std::runtime_error.
    [[noreturn]] static void _FailListing(int nError);
    /// Logs message 4012 and, below it, all that the error says, as one entry: for a failure that nobody else
    /// reports.
    void _LogError(const CXError& clError);
    /// Logs that a settings file is too large to be read.
    void _LogTooLarge(const std::wstring& csFile);
    /// Logs text from outside unchanged: a "%" in it is no insert.
    void _LogText(const std::wstring& csText);

    /// What an existing service is to a server that registers.
    enum class EComparison
    {
        OTHER,    ///< of no concern
        SAME,     ///< the server's own service
        CONFLICT, ///< it has the server's name or port
    };
    /// What a look at all services has found for a server that registers.
    struct STFound
    {
        std::unique_ptr<CService> pclService;               ///< the server's own; null: none
        std::vector<std::unique_ptr<CService>> tOtherNames; ///< services of its executable under other names
        bool bRefused = false;                              ///< a conflict, or the services cannot be listed
        bool bLogged = false; ///< the reason of the refusal is in the log already
    };
    /// Compares the server with every service. The text gets the reason of a refusal.
    STFound _stFindServer(const CServiceGuard& clGuard, const STRegistration& stServer, CTString* pcsError);
    /// Looks for a service of the server's name that no listing shows, being neither enabled nor running: an
    /// installation would overwrite it. Adds what it finds to *pstFound.
    void _FindUnlisted(const STRegistration& stServer, STFound* pstFound, CTString* pcsError);
    /// Refuses, and logs, because the services could not be listed or asked; nError is the errno.
    static void _RefuseUnasked(int nError, STFound* pstFound, CTString* pcsError);
    /// CONFLICT sets the text to its reason.
    static EComparison _eCompare(CService& clService, const STRegistration& stServer, CTString* pcsError);
    /// Finds or installs the server's service; *pclHold then has the locks of its names. Null, with the text
    /// set and logged, on refusal or failure.
    std::unique_ptr<CService> _pclMakeService(const STRegistration& stServer, CServiceLocks::CHold* pclHold,
                                              bool* pbInstalled, CTString* pcsError);
    /// The last step of _pclMakeService, with all locks taken: acts on what the look at the services has
    /// found.
    std::unique_ptr<CService> _pclConclude(const CServiceGuard& clGuard, const STRegistration& stServer,
                                           STFound stFound, bool* pbInstalled, CTString* pcsError);
    /// Null with errno set when the server's service cannot be installed.
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
