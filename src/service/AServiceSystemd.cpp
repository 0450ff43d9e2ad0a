// The systemd half of CService.

#include "service/AServiceUnix.h"
#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"
#include "support/DiskFile.h"

#include <wchar.h>

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
    const std::optional<std::wstring> csActiveState =
        m_pclManager->csAskSystemdProp("ActiveState", m_csName.c_str());
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

bool CService::__bRemoveSystemd()
{
    const auto csFragment = m_pclManager->csAskSystemdProp("FragmentPath", m_csName.c_str());
    const auto csSource =
        csFragment ? m_pclManager->csAskSystemdProp("SourcePath", m_csName.c_str()) : std::nullopt;
    // Which files make up the service is not known: removed half it would come back.
    if (!csFragment || !csSource) {
        return false;
    }
    if (!bSystemctlDone(L"disable " + m_csName)) {
        return false;
    }
    if (!__bStopForRemoval()) {
        return false;
    }
    for (const std::wstring& csFile : {*csFragment, *csSource}) {
        if (!csFile.empty()) { // best effort, as all that follows
            (void)CDiskFile::bDelete(csFile);
        }
    }
    (void)bSystemctlDone(L"daemon-reload");
    return true;
}
