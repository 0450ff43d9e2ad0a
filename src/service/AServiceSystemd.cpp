// The systemd half of CService: what systemctl is asked and told about one unit.

#include "service/AServiceUnix.h"
#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"
#include "service/SysVFamily.h"
#include "service/UnitFile.h"
#include "support/DiskFile.h"

#include <tuple>
#include <wchar.h>

namespace {
constexpr std::size_t s_nMaxUnitFile = 1U << 20; ///< bytes; a larger file is no unit

/// Deletes a file of the service that has the service's own name. A file of another name is not this unit's
/// alone: an instance has its template's file, an alias another unit's. An empty path means no file.
void DeleteOwnFile(const std::wstring& csFile, const std::wstring& csOwnName)
{
    if (csFile.ends_with(L"/" + csOwnName)) {
        std::ignore = CDiskFile::bDelete(csFile); // best effort: the caller has stopped the service already
    }
}
} // namespace

EServiceStatus CService::_eGetStatusSystemd()
{
    // systemd's words. A service that reloads still serves.
    struct STState
    {
        const wchar_t* pszActiveState;
        EServiceStatus eStatus;
    };
    static constexpr STState s_tStates[] = {
        {L"active", STATUS_RUNNING},           {L"reloading", STATUS_RUNNING},
        {L"inactive", STATUS_STOPPED},         {L"failed", STATUS_FAILED},
        {L"activating", STATUS_START_PENDING}, {L"deactivating", STATUS_STOP_PENDING},
    };

    const std::optional<std::wstring> csActiveState = m_pclManager->csAskSystemdProp("ActiveState", m_clName);
    if (!csActiveState) {
        return STATUS_UNKNOWN;
    }

    for (const STState& st : s_tStates) {
        if (wcscasecmp(st.pszActiveState, csActiveState->c_str()) == 0) {
            return st.eStatus;
        }
    }
    return STATUS_STOPPED; // any other word, and no word at all, count as stopped; clients rely on it
}

std::optional<std::wstring> CService::_csProgramOnDiskSystemd()
{
    // systemd generates the unit of an init script: the file that somebody wrote is then the script.
    const std::optional<std::wstring> csSource = m_pclManager->csAskSystemdProp("SourcePath", m_clName);
    if (csSource && csSource->starts_with(g_szScriptDirectory)) {
        return _csProgramInScriptFile(*csSource);
    }

    const std::optional<std::wstring> csUnit =
        csSource ? m_pclManager->csAskSystemdProp("FragmentPath", m_clName) : std::nullopt;
    std::string csText;
    if (!csUnit || csUnit->empty() || !CDiskFile::bReadFile(*csUnit, &csText, s_nMaxUnitFile)) {
        return std::nullopt;
    }
    return csProgramInUnit(csText);
}

bool CService::_bRemoveSystemd()
{
    const auto csFragment = m_pclManager->csAskSystemdProp("FragmentPath", m_clName);
    const auto csSource = csFragment ? m_pclManager->csAskSystemdProp("SourcePath", m_clName) : std::nullopt;
    if (!csFragment || !csSource) { // a service that is removed while its files are unknown would come back
        return false;
    }

    // Change nothing while the state cannot be asked: nobody could see that the service has stopped.
    if (eGetStatus() == STATUS_UNKNOWN) {
        return false;
    }

    // Before anything is deleted: while the service is enabled or runs, its unit is needed.
    if (!_bUnitCommand(L"disable") || !bStopForRemoval()) {
        return false;
    }

    // Best effort from here on: the service is stopped and does not start at boot.
    DeleteOwnFile(*csFragment, m_clName.csUnitFile());
    DeleteOwnFile(*csSource, m_clName.csText()); // the init script, if systemd generated the unit from one
    std::ignore = bSystemctlDone(L"daemon-reload");
    std::ignore = _bUnitCommand(L"reset-failed"); // otherwise systemd goes on listing a unit that has failed
    return true;
}
