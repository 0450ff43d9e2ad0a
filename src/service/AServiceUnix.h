#pragma once

#include "service/ServiceName.h"

#include <optional>
#include <string>

class CServiceManager;

/// Status of a service. The numbers are relied on: 5 to 7 are other systems' and never come from here.
enum EServiceStatus : int
{
    STATUS_UNKNOWN = -1, ///< the system could not be asked; errno tells why
    STATUS_STOPPED = 1,
    STATUS_START_PENDING = 2,
    STATUS_STOP_PENDING = 3,
    STATUS_RUNNING = 4, ///< also while reloading
    STATUS_FAILED = 8,  ///< the service died
};

/// Control codes of bSendControlCommand.
enum EControlCode : unsigned int
{
    CONTROL_STOP = 1,
    CONTROL_RELOAD = 6,
};

/// The manager's handle on one system service: its name, and the commands that act on it.
///
/// Made by a CServiceManager for a caller who owns it. Holds no state of the service itself: every query asks
/// the system again. Which init system it drives is CServiceManager::ms_eDistri's. Operations block while the
/// system's tool runs; one thread uses a record, several records of one service may exist. Nothing throws
/// but std::bad_alloc; results named b... are true on success and otherwise leave errno set.
class CService
{
public:
    /// The texts as a service manager tells them; a null argument leaves its field null. A service without a
    /// name does not exist.
    CService(CServiceManager* pclManager, const wchar_t* pszName);
    CService(CServiceManager* pclManager, const wchar_t* pszName, const wchar_t* pszDisplayName,
             const wchar_t* pszBinaryPath);
    /// The executable where it is known beside the command line.
    CService(CServiceManager* pclManager, CServiceName clName, std::optional<std::wstring> csDisplayName = {},
             std::optional<std::wstring> csBinaryPath = {}, std::optional<std::wstring> csExecutable = {});

    const wchar_t* pszGetName() const { return m_clName.bNull() ? nullptr : m_clName.csText().c_str(); }
    const CServiceName& clName() const { return m_clName; }
    /// The name as it was registered, spaces included.
    std::wstring csRegisteredName() { return m_clName.csRegisteredAs(pszGetDisplayName()); }
    /// What programs written for other systems ask for as well: fixed values. The manager asks for none.
    static unsigned int nGetStartType() { return 2; }    ///< automatic
    static unsigned int nGetErrorControl() { return 1; } ///< normal
    static unsigned int nGetServiceType() { return 16; } ///< a process of its own
    static const wchar_t* pszGetStartName() { return L"root"; }

    /// Name for people; null when unknown. On SysV read from the script's marker line (the service name where
    /// there is none).
    const wchar_t* pszGetDisplayName();
    /// Full command line or program path; null when unknown. On SysV read from the script's marker line.
    const wchar_t* pszBinaryPathName();
    /// The executable alone; empty when unknown. Under systemd as systemctl shows it, otherwise what the
    /// binary path says (CProgram::s_clOf).
    std::wstring csGetExecutable();
    /// Whether the executable is the only program that the service starts, as far as systemd shows it.
    bool bOneProgram() const { return m_bOneProgram; }
    void SetOneProgram(bool bOneProgram) { m_bOneProgram = bOneProgram; }
    /// The program that the service's unit file or init script says, read anew and whole; nothing when it
    /// does not say one, or when its path may go on after a space.
    std::optional<std::wstring> csProgramOnDisk();

    /// pszArguments reach a SysV script only: a unit fixes its own command line.
    bool bStart(const wchar_t* pszArguments = nullptr);
    bool bStop();
    bool bRestart(); ///< for the product's other programs, as bSendControlCommand is
    EServiceStatus eGetStatus();
    /// Whether it runs or is about to.
    bool bActive();
    /// Stops what runs until it is seen to be stopped, on SysV also processes that no PID file names. EBUSY
    /// while it cannot be.
    bool bStopForRemoval();
    /// Unregisters the service and deletes its unit file or script. What runs is stopped before; while it
    /// cannot be, nothing is deleted and errno is EBUSY: no process is left without a unit.
    bool bRemove();
    bool bSendControlCommand(unsigned int nCode);

    /// Of an installation: the steps after the writing of the unit or script that did not take place, as
    /// commands or words for people; empty when all did. An installation succeeds without them, too.
    const std::wstring& csMissingSteps() const { return m_csMissingSteps; }
    void AddMissingStep(const std::wstring& csStep);

    /// Takes the binary path from the marker line of the service's init script; unchanged when there is none.
    void SetBinaryPathFromSysVScript();
    /// Takes all that the marker line of the service's init script has. False, with errno, when there is no
    /// script (ENOENT) or it cannot be read; what is not a script at all (a folder, a file beyond 1 MiB) has
    /// no marker line.
    bool bReadScript();

private:
    bool __bReload();
    /// Runs systemctl with a verb and the name; false (ENOENT) for a name that no unit can have.
    bool __bAsk(const wchar_t* pszVerb);
    /// A command whose output nobody sees, by the verb that both systems share.
    bool __bCommand(const wchar_t* pszVerb);
    EServiceStatus __eGetStatusSystemd();
    bool __bRemoveSystemd();
    bool __bScriptCommand(const wchar_t* pszVerb, const wchar_t* pszArguments, const wchar_t* pszRedirection);
    EServiceStatus __eGetStatusSysV();
    EServiceStatus __eGetStatusByPidFile();
    bool __bRemoveSysV();
    const wchar_t* __pszDisplayNameFromScript();

    CServiceManager* m_pclManager; ///< not owned
    CServiceName m_clName;
    std::optional<std::wstring> m_csBinaryPath;
    std::optional<std::wstring> m_csDisplayName;
    std::wstring m_csMissingSteps;
    std::optional<std::wstring> m_csExecutable;
    bool m_bOneProgram = true;
};
