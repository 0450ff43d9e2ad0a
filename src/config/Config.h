#pragma once

#include "config/Settings.h"
#include "support/LogMode.h"

#include <cstdint>
#include <string>

/// Typed access to the settings file "DXConf.ini" of one directory: the manager's own, or that of a server.
///
/// Nothing is cached: every getter reads the file anew, every setter rewrites it. Getters never fail and
/// never throw; they allocate nothing beside the store. A missing file or key gives the default. Any number
/// of objects may be used by any threads, with the limits of the store beneath (see WinApi.h). Keys,
/// defaults, meanings and units: docs/settings.md. The manager itself asks for the restart of failed servers
/// and, of a server's file, for its cluster; all else is for the servers and the setup programs.
///
/// Getters of texts fill a buffer as large as their setting's row in Settings.h says, terminator included;
/// those that expand a path fill one of s_nPathBuffer characters. Setters of texts delete the key when given
/// null (not SetDBRootPath, which needs a directory).
class CConfig
{
public:
    static constexpr std::size_t s_nPathBuffer = 261;

    /// Null is the directory of the running executable.
    explicit CConfig(const wchar_t* pszDirectory);

    /// A server without a name gets one made of the current UTC time, which is written to the file if that is
    /// possible.
    void GetServerName(wchar_t* pszBuffer) const;
    ELogMode eGetLogMode() const;
    void GetLogFileName(wchar_t* pszBuffer) const;
    /// 0: IPv4 and IPv6, 1: IPv4 only, 2: IPv6 only.
    int nGetsocketOptions() const;
    /// Directories end in "/", those as stored ("...Config") excepted. The journal lies with the databases
    /// unless it has a directory, its backup with the journal.
    void GetRootDBPath(wchar_t* pszBuffer) const;
    void GetRootDBPathConfig(wchar_t* pszBuffer) const;
    void GetStatDirectory(wchar_t* pszBuffer) const;
    void GetStatDirectoryConfig(wchar_t* pszBuffer) const;
    void GetJNLPath(wchar_t* pszBuffer) const;
    void GetJNLPathConfig(wchar_t* pszBuffer) const;
    void GetJNLBackupPath(wchar_t* pszBuffer) const;
    void GetJNLBackupPathConfig(wchar_t* pszBuffer) const;
    void GetCrashDumpDirectory(wchar_t* pszBuffer) const;
    int bLogConnexion() const;
    int bMoreThan2Go() const;
    int nGetPort() const;
    int nGetDebuggerPort() const;
    int nGetPreVersion() const;
    std::uint32_t dwGetCacheSizeMo() const;
    std::uint32_t nGetCacheMaximumUnusedTables() const;
    bool bGetCacheTablesPrefetch() const;
    bool bAllowReplicIdAuto4() const;
    int nGetWindowsFileCacheSize() const;
    int bWithCoreDump() const;
    /// False when no user is set.
    bool bGetUserDaemon(wchar_t* pszBuffer) const;
    /// At most 65535, which is also what a negative number reads as.
    std::uint16_t wGetStatPeriod() const;
    /// Bytes; computed in 32 bits, so that 4096 MB and more wrap around: intended.
    std::uint64_t qwGetStatMaxFileSize() const;
    void GetAfterUpdate(wchar_t* pszBuffer) const;
    bool bIsInstallerNatif() const;
    std::uint32_t dwGetCrashDumpLevel() const;
    bool bQuerySuggestKey() const;
    int bRestartOnFailed() const;
    /// Seconds.
    std::uint32_t dwCheckPeriod() const;
    /// Only 1 makes a cluster node.
    bool bClusterNode() const;
    void GetClusterManagerName(wchar_t* pszBuffer) const;
    void GetClusterPassword(wchar_t* pszBuffer) const;
    bool bGetClusterLastRunCrashed() const;
    std::uint32_t dwGetClusterLastRunNumber() const;
    bool bGetAutoAnalyseEnable() const;
    std::uint32_t dwGetAutoAnalyseWait() const;
    std::uint32_t dwGetAutoAnalyseTimeBetweenScan() const;
    std::uint32_t dwGetAutoAnalyseTimeBetweenStat() const;
    std::uint32_t dwGetAutoAnalyseTimeAfterCreation() const;
    std::uint32_t dwGetAutoAnalyseMinWrite() const;
    std::uint32_t dwGetAutoAnalysePercentWrite() const;

    /// These throw CXError when the write fails.
    void SetMoreThan2Go(unsigned int bAllow);
    void SetPort(std::uint16_t wPort);
    void SetDebuggerPort(std::uint16_t wPort);
    void SetCacheSizeMo(std::uint32_t dwMegabytes);
    void SetCacheMaximumUnusedTables(std::uint32_t dwFiles);
    void SetWindowsFileCacheSize(int nSize);
    /// Creates the directory first, with its parents, and throws the error of that, the file unchanged, on
    /// failure.
    void SetDBRootPath(const wchar_t* pszPath);
    void SetUserDaemon(const wchar_t* pszUser);
    void SetStatPeriod(std::uint16_t wPeriod);
    void SetStatMaxFileSizeMO(std::uint32_t dwMegabytes);
    void SetStatDirectory(const wchar_t* pszPath);
    void WriteAfterUpdate(const wchar_t* pszReport);
    void SetAutoAnalyseEnable(bool bEnable);

    /// These return nonzero on success, else 0 with errno. An empty journal path deletes the key as null
    /// does.
    int ClearAfterUpdate();
    int SetJNLPath(const wchar_t* pszPath);
    int SetJNLBackupPath(const wchar_t* pszPath);
    int SetClusterRunning(bool bRunning);
    int SetClusterLastRunNumber(std::uint32_t dwNumber);

private:
    static const wchar_t* __GetProgramData() { return L"/var/lib/"; }
    /// Expands the macro at the start of a path, in place, in a buffer of s_nPathBuffer characters; the
    /// result is cut to what that holds.
    void __PatchPath(wchar_t* pszPath) const;
    template <class T>
    T _Read(const settings::STNumber<T>& stSetting) const;
    void _Read(const settings::STText& stSetting, wchar_t* pszBuffer) const;
    /// A directory setting, expanded and with its end slash; false when it is empty.
    bool _bReadDirectory(const settings::STText& stSetting, wchar_t* pszBuffer) const;
    template <class TSetting>
    int _Write(const TSetting& stSetting, const wchar_t* pszValue) const;
    template <class TSetting>
    void __xWritePrivateProfileString(const TSetting& stSetting, const wchar_t* pszValue);
    template <class T, class TNumber>
    void _xWriteNumber(const settings::STNumber<T>& stSetting, TNumber nValue);

    std::wstring m_csDirectory; // ends in "/"
    std::wstring m_csFile;
};
