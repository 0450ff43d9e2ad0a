// The systemd half of CService: what systemctl is asked and told about one unit.

#include "service/AServiceUnix.h"
#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"
#include "service/SysVFamily.h"
#include "service/UnitFile.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"

#include <tuple>
#include <wchar.h>

namespace {
constexpr std::size_t s_nMaxServiceFile = 1U << 20; ///< bytes; a larger file is neither unit nor script
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
    return STATUS_STOPPED; // so counts every other word, and none at all; clients rely on it
}

std::optional<std::wstring> CService::csProgramOnDisk()
{
    std::wstring csFile = csScriptPath(m_clName.csText());
    bool bScript = true;
    if (CServiceManager::bSystemd()) {
        // systemd generates the unit of an init script: the file that somebody wrote is then the script.
        const auto csSource = m_pclManager->csAskSystemdProp("SourcePath", m_clName);
        bScript = csSource && csSource->starts_with(g_szScriptDirectory);
        const auto csFragment = bScript ? csSource : m_pclManager->csAskSystemdProp("FragmentPath", m_clName);
        csFile = csSource && csFragment ? *csFragment : L"";
    }

    std::string csText;
    if (csFile.empty() || !CDiskFile::bReadFile(csFile, &csText, s_nMaxServiceFile)) {
        return std::nullopt;
    }

    if (!bScript) {
        return csProgramInUnit(csText);
    }
    const std::optional<std::string> csProgram = csProgramStarted(csText, csToUTF8(m_clName.csText()));
    return csProgram ? std::optional(csFromUTF8(*csProgram)) : std::nullopt;
}

bool CService::_bRemoveSystemd()
{
    const auto csFragment = m_pclManager->csAskSystemdProp("FragmentPath", m_clName);
    const auto csSource = csFragment ? m_pclManager->csAskSystemdProp("SourcePath", m_clName) : std::nullopt;
    if (!csFragment || !csSource) {
        // The service's files are not known. A service that is removed by half comes back.
        return false;
    }

    // While its state cannot be asked nobody could see it stopped: nothing is changed.
    if (eGetStatus() == STATUS_UNKNOWN) {
        return false;
    }

    // Before anything is deleted: while the service is enabled or runs, its unit is needed.
    if (!_bAsk(L"disable") || !bStopForRemoval()) {
        return false;
    }

    // Best effort from here on: the service is stopped and does not start at boot. A file of another name is
    // not this unit's alone: an instance has its template's, an alias another unit's.
    for (const auto& [csFile, csOwn] :
         {std::pair{*csFragment, m_clName.csUnitFile()}, {*csSource, m_clName.csText()}}) {
        if (csFile.ends_with(L"/" + csOwn)) {
            std::ignore = CDiskFile::bDelete(csFile);
        }
    }
    std::ignore = bSystemctlDone(L"daemon-reload");
    std::ignore = _bAsk(L"reset-failed"); // otherwise systemd goes on listing a unit that has failed
    return true;
}
