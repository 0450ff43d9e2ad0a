#pragma once

#include "service/ServiceName.h"

#include <optional>
#include <string>

class CServiceManager;

/// Status of a service. Clients rely on the numbers; 5 to 7 are those of other systems and never come from
/// here.
enum EServiceStatus : int
{
    STATUS_UNKNOWN = -1, ///< the init system gave no answer; errno says why
    STATUS_STOPPED = 1,
    STATUS_START_PENDING = 2,
    STATUS_STOP_PENDING = 3,
    STATUS_RUNNING = 4, ///< also while reloading
    STATUS_FAILED = 8,  ///< the service died; on SysV: its PID file was left behind
};

/// Control codes of bSendControlCommand.
enum EControlCode : unsigned int
{
    CONTROL_STOP = 1,
    CONTROL_RELOAD = 6,
};

/// The manager's handle on one system service: its name, and the commands that act on it.
///
/// A CServiceManager makes it and its caller owns it. It holds no state of the service itself: every query
/// asks the init system again (the one that CServiceManager::ms_eDistri names). Operations block until the
/// system's tool exits or the calling thread may not go on (CStopping). One thread uses a record; several
/// records of one service may exist. Nothing throws but std::bad_alloc. The commands (bStart, bStop,
/// bRestart, bSendControlCommand, bStopForRemoval, bRemove) return true on success and otherwise leave errno
/// set. Texts that are returned as pointers belong to the record.
class CService
{
public:
    /// The texts as a service manager gives them; a null argument leaves its field null. A null name is the
    /// name of no service.
    CService(CServiceManager* pclManager, const wchar_t* pszName);
    CService(CServiceManager* pclManager, const wchar_t* pszName, const wchar_t* pszDisplayName,
             const wchar_t* pszBinaryPath);
    /// With the path of the executable, where it is known apart from the command line.
    CService(CServiceManager* pclManager, CServiceName clName, std::optional<std::wstring> csDisplayName = {},
             std::optional<std::wstring> csBinaryPath = {}, std::optional<std::wstring> csExecutable = {});

    const wchar_t* pszGetName() const { return m_clName.bNull() ? nullptr : m_clName.csText().c_str(); }
    const CServiceName& clName() const { return m_clName; }
    /// The name under which the server registered, spaces included; see CServiceName::csRegisteredAs.
    std::wstring csRegisteredName() { return m_clName.csRegisteredAs(pszGetDisplayName()); }
    /// Fixed values that programs written for other systems ask for; the manager itself does not.
    static unsigned int nGetStartType() { return 2; }    ///< automatic
    static unsigned int nGetErrorControl() { return 1; } ///< normal
    static unsigned int nGetServiceType() { return 16; } ///< a process of its own
    static const wchar_t* pszGetStartName() { return L"root"; }

    /// Name for people; null when unknown. On SysV it is read from the script's marker line; without such a
    /// line it is the service name.
    const wchar_t* pszGetDisplayName();
    /// Full command line or program path; null when unknown. On SysV it is read from the script's marker
    /// line.
    const wchar_t* pszBinaryPathName();
    /// The executable alone; empty when unknown. Under systemd it is what systemctl shows, otherwise it is
    /// taken from the binary path (CProgram::s_clOf).
    std::wstring csGetExecutable();
    /// Whether the executable is the only program that the service starts, as far as systemd shows it.
    bool bOneProgram() const { return m_bOneProgram; }
    void SetOneProgram(bool bOneProgram) { m_bOneProgram = bOneProgram; }
    /// The program that the service's unit file or init script names, read from the whole file at each call.
    /// Nothing when the file names none or cannot be read, or when the path may go on after a space.
    std::optional<std::wstring> csProgramOnDisk();

    /// pszArguments reach SysV scripts only: a unit fixes its own command line.
    bool bStart(const wchar_t* pszArguments = nullptr);
    bool bStop();
    bool bRestart(); ///< like bSendControlCommand, for the product's other programs
    EServiceStatus eGetStatus();
    /// Whether the service runs or is about to.
    bool bActive();
    /// Stops the service, again if somebody starts it meanwhile, up to three times. On SysV then ends the
    /// processes of its server that no PID file names. False, with EBUSY, when something still runs.
    bool bStopForRemoval();
    /// Stops and unregisters the service and deletes its unit file or script. When the service cannot be
    /// stopped, nothing is deleted and errno is EBUSY: no process is left without a unit. Under systemd the
    /// service is disabled by then, so that it does not start at the next boot.
    bool bRemove();
    /// Does what an EControlCode asks; false with EINVAL for any other code.
    bool bSendControlCommand(unsigned int nCode);

    /// After an installation: the steps that failed or were cut short once the unit or script was written, as
    /// commands or words for people; empty when there are none. The installation has succeeded all the same.
    const std::wstring& csMissingSteps() const { return m_csMissingSteps; }
    void AddMissingStep(const std::wstring& csStep);

    /// Fills the binary path from the marker line of the service's init script; unchanged when there is none.
    void SetBinaryPathFromSysVScript();
    /// Fills the binary path, and on SysV a display name that is still unknown, from the marker line of the
    /// service's init script. False, with errno, when there is no script (ENOENT) or it cannot be read. What
    /// is not a script at all (a folder, a file beyond 1 MiB) counts as one without a marker line.
    bool bReadScript();

private:
    bool _bReload();
    /// Runs a command that has the same verb on both kinds of init system; its output is discarded.
    bool _bCommand(const wchar_t* pszVerb);

    /// Runs systemctl with a verb and the unit's name; false with ENOENT for a name that no unit can have.
    bool _bUnitCommand(const wchar_t* pszVerb);
    EServiceStatus _eGetStatusSystemd();
    bool _bRemoveSystemd();
    std::optional<std::wstring> _csProgramOnDiskSystemd();

    /// Runs the init script through the shell. False with ENOENT for a name that no script can have, and with
    /// EINVAL for arguments that mean something to the shell.
    bool _bScriptCommand(const wchar_t* pszVerb, const wchar_t* pszArguments, const wchar_t* pszRedirection);
    /// The text of the service's init script; nothing, with errno, when it cannot be read.
    std::optional<std::string> _csReadScriptFile() const;
    /// The program that an init script starts, from the whole file; nothing as in csProgramOnDisk.
    std::optional<std::wstring> _csProgramInScriptFile(const std::wstring& csPath) const;
    EServiceStatus _eGetStatusSysV();
    EServiceStatus _eGetStatusByPidFile();
    bool _bRemoveSysV();
    const wchar_t* _pszDisplayNameFromScript();

    CServiceManager* m_pclManager; ///< not owned
    CServiceName m_clName;
    std::optional<std::wstring> m_csBinaryPath;
    std::optional<std::wstring> m_csDisplayName;
    std::wstring m_csMissingSteps;
    std::optional<std::wstring> m_csExecutable;
    bool m_bOneProgram = true;
};
