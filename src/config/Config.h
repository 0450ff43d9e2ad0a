#pragma once

#include "config/Settings.h"
#include "support/LogMode.h"

#include <cstdint>
#include <string>

/// Typed access to the settings file "DXConf.ini" of one directory: the manager's own, or that of a server.
///
/// Nothing is cached: every getter reads the file anew, every setter rewrites it. Getters never fail and
/// never throw: a missing file or key, and out of memory, give the default. Any thread may use any object,
/// within the limits of the store (see WinApi.h). docs/settings.md says the keys, defaults, meanings and
/// units. The manager itself reads only the settings of its restart monitor and, from a server's file, those
/// of the cluster; all others are for the servers and the setup programs.
///
/// A getter of a text fills a buffer of the size that the setting's row in Settings.h says, terminator
/// included; one that expands a path fills a buffer of s_nPathBuffer characters. A setter of a text deletes
/// the key when given null (except SetDBRootPath, which needs a directory). Any setter may also throw
/// std::bad_alloc.
class CConfig
{
public:
    static constexpr std::size_t s_nPathBuffer = 261;

    /// Null stands for the directory of the running executable.
    explicit CConfig(const wchar_t* pszDirectory);

    /// A server without a name gets one made of the current UTC time, which is also written to the file, if
    /// possible.
    void GetServerName(wchar_t* pszBuffer) const;
    ELogMode eGetLogMode() const;
    void GetLogFileName(wchar_t* pszBuffer) const;
    /// 0: IPv4 and IPv6, 1: IPv4 only, 2: IPv6 only.
    int nGetsocketOptions() const;
    /// Directories end in "/", except those that are given as stored ("...Config"). Without a directory of
    /// its own the journal lies with the databases, and its backup with the journal.
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
    /// At most 65535; a negative number also reads as 65535.
    std::uint16_t wGetStatPeriod() const;
    /// Bytes. Computed in 32 bits, so that 4096 MB and more wrap around: clients rely on it.
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

    // These throw CXError when the write fails.

    void SetMoreThan2Go(unsigned int bAllow);
    void SetPort(std::uint16_t wPort);
    void SetDebuggerPort(std::uint16_t wPort);
    void SetCacheSizeMo(std::uint32_t dwMegabytes);
    void SetCacheMaximumUnusedTables(std::uint32_t dwFiles);
    void SetWindowsFileCacheSize(int nSize);
    /// Creates the directory first, with its parents. When that fails (ENOENT for null and for an empty
    /// path), throws the error and leaves the file unchanged.
    void SetDBRootPath(const wchar_t* pszPath);
    void SetUserDaemon(const wchar_t* pszUser);
    void SetStatPeriod(std::uint16_t wPeriod);
    void SetStatMaxFileSizeMO(std::uint32_t dwMegabytes);
    void SetStatDirectory(const wchar_t* pszPath);
    void WriteAfterUpdate(const wchar_t* pszReport);
    void SetAutoAnalyseEnable(bool bEnable);

    // These return nonzero on success, else 0 with errno. An empty journal path deletes the key, like null.

    int ClearAfterUpdate();
    int SetJNLPath(const wchar_t* pszPath);
    int SetJNLBackupPath(const wchar_t* pszPath);
    int SetClusterRunning(bool bRunning);
    int SetClusterLastRunNumber(std::uint32_t dwNumber);

private:
    static const wchar_t* __GetProgramData() { return L"/var/lib/"; }
    /// Expands the macro at the start of a path, in place: "%%EXE%%" is this object's directory,
    /// "%%COMMONAPPDATA%%" is __GetProgramData. The buffer has s_nPathBuffer characters; a longer result is
    /// cut.
    void __PatchPath(wchar_t* pszPath) const;
    template <class T>
    T _Read(const settings::STNumber<T>& stSetting) const;
    void _Read(const settings::STText& stSetting, wchar_t* pszBuffer) const;
    /// Reads a directory setting, expanded and with a trailing slash; false when it is empty.
    bool _bReadDirectory(const settings::STText& stSetting, wchar_t* pszBuffer) const;
    template <class TSetting>
    int _Write(const TSetting& stSetting, const wchar_t* pszValue) const;
    template <class TSetting>
    void __xWritePrivateProfileString(const TSetting& stSetting, const wchar_t* pszValue);
    template <class T, class TNumber>
    void _xWriteNumber(const settings::STNumber<T>& stSetting, TNumber nValue);

    std::wstring m_csDirectory; ///< with a trailing slash
    std::wstring m_csFile;      ///< path of "DXConf.ini" in it
};
