// The table of SysV families, and the ways in which they start a service at boot.

#include "service/SysVFamily.h"

#include "service/InitScript.h"
#include "service/ScriptTemplates.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Shell.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <tuple>

namespace {
/// A row's shell line or text with the service's name filled in.
std::string csFor(const std::string& csName, const char* pszRow)
{
    return csReplaceAll<char>(pszRow, "%s", csName);
}

void RegisterByTool(const STSysVFamily& stFamily, const std::string& csName)
{
    // A failure is ignored: without its boot links a script still starts and stops the service.
    std::ignore = nShell(csFor(csName, stFamily.pszRegister));
}

struct STBootFile
{
    const wchar_t* pszPath;
    const char* pszBlock;
};

/// Clients rely on exactly these bytes, also on the first block's odd command "/. etc/..." and on the second
/// block's comment, which says "Start" where it stops.
constexpr STBootFile s_tBootFiles[] = {
    {L"/etc/rc.d/rc.M",
     "\n# Start the %s server\nif [ -x /etc/rc.d/rc.%s ]; then\n/. etc/rc.d/rc.%s start\nfi\n"},
    {L"/etc/rc.d/rc.K",
     "\n# Start the %s server\nif [ -x /etc/rc.d/rc.%s ]; then\n/etc/rc.d/rc.%s stop\nfi\n"},
};

/// Slackware has no tool: its boot and shutdown scripts call each service in a block of their own. A script
/// that does not exist is not created. A removal leaves the blocks, which do nothing once the service's
/// script is gone.
void AppendBootBlocks(const STSysVFamily&, const std::string& csName)
{
    for (const STBootFile& st : s_tBootFiles) {
        std::string csFile;
        const std::string csBlock = csFor(csName, st.pszBlock);
        if (CDiskFile::bReadFile(st.pszPath, &csFile) && csFile.find(csBlock) == std::string::npos) {
            // A failure is ignored, as with the tools of the other families.
            std::ignore = CDiskFile::bWriteFile(st.pszPath, csFile + csBlock);
        }
    }
}

/// In this order: the tools read the script's header to find its links.
bool bUnregisterThenDelete(const STSysVFamily& stFamily, const std::wstring& csName)
{
    if (stFamily.pszUnregister != nullptr) {
        std::ignore = nShell(csFor(csToUTF8(csName), stFamily.pszUnregister));
    }
    std::ignore = CDiskFile::bDelete(csScriptPath(csName));
    return true; // best effort
}

/// In this order: update-rc.d removes the links only when the script is gone.
bool bDeleteThenUnregister(const STSysVFamily& stFamily, const std::wstring& csName)
{
    std::ignore = CDiskFile::bDelete(csScriptPath(csName));
    // Whatever update-rc.d reports counts as success. A shell that could not be run (-1) counts as failure,
    // but not a missing one: its ENOENT would say that there is no such service. Clients rely on all of this.
    return nShell(csFor(csToUTF8(csName), stFamily.pszUnregister)) != -1 || errno == ENOENT;
}

/// One row for each SysV family. A family without a tool for boot links has no shell lines, but a function of
/// its own.
constexpr STSysVFamily s_tFamilies[] = {
    {DISTRI_DEBIAN, g_szScriptDirectory, &g_csDebianScript, "update-rc.d %s defaults >/dev/null",
     "update-rc.d -f %s remove >/dev/null", RegisterByTool, bDeleteThenUnregister},
    {DISTRI_REDHAT, g_szScriptDirectory, &g_csRedHatScript, "chkconfig --add %s >/dev/null",
     "chkconfig --del %s >/dev/null", RegisterByTool, bUnregisterThenDelete},
    {DISTRI_MANDRAKE, g_szScriptDirectory, &g_csRedHatScript, "chkconfig --add %s >/dev/null",
     "chkconfig --del %s >/dev/null", RegisterByTool, bUnregisterThenDelete},
    {DISTRI_FEDORA, g_szScriptDirectory, &g_csRedHatScript, "chkconfig --add %s >/dev/null",
     "chkconfig --del %s >/dev/null", RegisterByTool, bUnregisterThenDelete},
    {DISTRI_SUSE, g_szScriptDirectory, &g_csSuSEScript, "insserv %s >/dev/null", "insserv -r %s >/dev/null",
     RegisterByTool, bUnregisterThenDelete},
    {DISTRI_GENTOO, g_szScriptDirectory, &g_csGentooScript, "rc-update add %s default >/dev/null",
     "rc-update del %s >/dev/null", RegisterByTool, bUnregisterThenDelete},
    {DISTRI_SLACKWARE, L"/etc/rc.d/rc.", &g_csSlackwareScript, nullptr, nullptr, AppendBootBlocks,
     bUnregisterThenDelete},
};
} // namespace

const STSysVFamily* pstFindFamily(EDistri eDistri)
{
    const auto* const pFound = std::ranges::find(s_tFamilies, eDistri, &STSysVFamily::eDistri);
    return pFound != std::end(s_tFamilies) ? pFound : nullptr;
}

std::wstring csScriptPath(const std::wstring& csName)
{
    if (!bInertName(csName)) {
        errno = ENOENT;
        return {};
    }

    const STSysVFamily* const pstFamily = pstFindFamily(CServiceManager::ms_eDistri);
    const std::wstring csUsual = g_szScriptDirectory + csName;
    const std::wstring csOwn = pstFamily != nullptr ? pstFamily->pszScriptPrefix + csName : csUsual;
    const bool bOnlyUsual = !CDiskFile::bExists(csOwn) && CDiskFile::bExists(csUsual);
    return bOnlyUsual ? csUsual : csOwn;
}
