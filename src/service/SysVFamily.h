#pragma once

#include "service/ServiceManagerUnix.h"

#include <string>
#include <string_view>

/// Where most families have their scripts, and where every family's are looked for.
inline constexpr wchar_t g_szScriptDirectory[] = L"/etc/init.d/";

/// What is particular to one family of SysV systems: one row of the table behind pstFindFamily. Every
/// function that takes a name expects an inert one (bInertName).
struct STSysVFamily
{
    EDistri eDistri;
    const wchar_t* pszScriptPrefix;      ///< where scripts are written: stands before the script name
    const std::string_view* pcsTemplate; ///< never null
    const char* pszRegister;             ///< shell lines; "%s" is the script name, null is none
    const char* pszUnregister;
    /// Make the system start the script at boot, or not any more and delete it.
    void (*pfnRegister)(const STSysVFamily& stFamily, const std::string& csName);
    bool (*pfnRemove)(const STSysVFamily& stFamily, const std::wstring& csName);
};

/// Row of a family; null for DISTRI_SYSTEMD and DISTRI_UNKNOWN.
const STSysVFamily* pstFindFamily(EDistri eDistri);

/// Path of a service's script: where the machine's family writes it, or in g_szScriptDirectory when it is
/// only there. Empty (and errno ENOENT) for a name that no service can have.
std::wstring csScriptPath(const std::wstring& csName);
