// The systemd half of CService.

#include "service/AServiceUnix.h"
#include "service/InitScript.h"
#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"
#include "service/SysVFamily.h"
#include "service/UnitFile.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"

#include <wchar.h>

namespace {
constexpr std::size_t s_nMaxServiceFile = 1U << 20;
} // namespace

EServiceStatus CService::__eGetStatusSystemd()
{
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
    return STATUS_STOPPED; // so does every other word, and none at all
}

std::optional<std::wstring> CService::csProgramOnDisk()
{
    std::wstring csFile = csScriptPath(m_clName.csText());
    bool bScript = true;
    if (CServiceManager::bSystemd()) {
        // A unit that systemd made of an init script has no file that would be anybody's.
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

bool CService::__bRemoveSystemd()
{
    const auto csFragment = m_pclManager->csAskSystemdProp("FragmentPath", m_clName);
    const auto csSource = csFragment ? m_pclManager->csAskSystemdProp("SourcePath", m_clName) : std::nullopt;
    // Which files make up the service is not known: removed half it would come back.
    if (!csFragment || !csSource) {
        return false;
    }
    if (!__bAsk(L"disable")) {
        return false;
    }
    if (!bStopForRemoval()) {
        return false;
    }
    // A file of another name is not this unit's alone: an instance has its template's, an alias another's.
    for (const auto& [csFile, csOwn] :
         {std::pair{*csFragment, m_clName.csUnitFile()}, {*csSource, m_clName.csText()}}) {
        if (csFile.ends_with(L"/" + csOwn)) { // best effort, as all that follows
            (void)CDiskFile::bDelete(csFile);
        }
    }
    (void)bSystemctlDone(L"daemon-reload");
    (void)__bAsk(L"reset-failed"); // else systemd goes on listing one that has failed
    return true;
}
