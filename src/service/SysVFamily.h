#pragma once

#include "service/ServiceManagerUnix.h"

#include <string>
#include <string_view>

/// Where most families have their scripts, and where those of the others are looked for, too.
inline constexpr wchar_t g_szScriptDirectory[] = L"/etc/init.d/";

/// What is particular to one family of SysV systems: one row of the table that pstFindFamily searches. Every
/// function that takes a name expects an inert one (bInertName).
struct STSysVFamily
{
    EDistri eDistri;
    const wchar_t* pszScriptPrefix;      ///< path of a written script, up to the script's name
    const std::string_view* pcsTemplate; ///< never null
    const char* pszRegister;             ///< shell line; "%s" is the script's name; null: none
    const char* pszUnregister;           ///< the same
    /// Makes the init system start the script at boot. A failure is ignored.
    void (*pfnRegister)(const STSysVFamily& stFamily, const std::string& csName);
    /// Undoes the registration and deletes the script. False, with errno, on failure; only Debian's can fail.
    bool (*pfnRemove)(const STSysVFamily& stFamily, const std::wstring& csName);
};

/// Row of a family; null for DISTRI_SYSTEMD and DISTRI_UNKNOWN.
const STSysVFamily* pstFindFamily(EDistri eDistri);

/// Path of a service's script: where the machine's family writes it, or in g_szScriptDirectory when it exists
/// only there. Empty, with errno ENOENT, for a name that no service can have.
std::wstring csScriptPath(const std::wstring& csName);
