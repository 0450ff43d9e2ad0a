#include "config/Config.h"

#include "config/WinApi.h"
#include "support/accesdllres.h"
#include "support/DiskFile.h"
#include "support/Version.h"
#include "support/WinApi.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <cwchar>
#include <span>
#include <string_view>
#include <tuple>

using std::uint16_t;
using std::uint32_t;

namespace {
/// Longest path in characters, without the terminator.
constexpr std::size_t s_nMaxPath = CConfig::s_nPathBuffer - 1;
using CPathBuffer = std::array<wchar_t, CConfig::s_nPathBuffer>;

/// Turns every backslash into "/" and appends a "/" unless the path is empty or ends in one. In a full path
/// buffer the slash replaces the last character.
void EndInSlash(wchar_t* pszPath)
{
    const std::size_t nLength = std::wcslen(pszPath);
    std::ranges::replace(std::span(pszPath, nLength), L'\\', L'/');
    if (nLength == 0 || pszPath[nLength - 1] == L'/') {
        return;
    }

    const std::size_t nSlash = std::min(nLength, s_nMaxPath - 1);
    pszPath[nSlash] = L'/';
    pszPath[nSlash + 1] = L'\0';
}

/// Replaces a macro of nMacro characters, with the slashes that follow it, by a directory. A backslash after
/// the macro stays. pszPath is a path buffer; the result is cut to what it holds.
void ReplaceMacro(wchar_t* pszPath, std::size_t nMacro, std::wstring_view csDirectory)
{
    std::wstring_view csRest(pszPath);
    csRest.remove_prefix(std::min(nMacro, csRest.size())); // the path may be shorter: see __PatchPath
    csRest.remove_prefix(std::min(csRest.find_first_not_of(L'/'), csRest.size()));

    // The rest moves first: the directory may overwrite the place where it stood.
    const std::size_t nDirectory = std::min(csDirectory.size(), s_nMaxPath);
    const std::size_t nKept = std::min(csRest.size(), s_nMaxPath - nDirectory);
    std::wmemmove(pszPath + nDirectory, csRest.data(), nKept);
    csDirectory.copy(pszPath, nDirectory);
    pszPath[nDirectory + nKept] = L'\0';
}

/// Copies a path into a path buffer, cut to what the buffer holds.
void CopyPath(std::wstring_view csPath, wchar_t* pszBuffer)
{
    pszBuffer[csPath.copy(pszBuffer, s_nMaxPath)] = L'\0';
}

std::wstring csExecutableDirectory()
{
    // Clients take a backslash for a separator, csDirectory does not: backslashes are turned before the
    // split.
    std::wstring csPath = GetModuleFileNameW(s_nMaxPath);
    std::ranges::replace(csPath, L'\\', L'/');
    return CDiskFile::csDirectory(csPath);
}

/// The directory given, or for null that of the running executable, with a trailing slash.
std::wstring csOwnDirectory(const wchar_t* pszDirectory)
{
    const std::wstring csPath = pszDirectory != nullptr ? pszDirectory : csExecutableDirectory();
    CPathBuffer szPath{};
    CopyPath(csPath, szPath.data());
    EndInSlash(szPath.data());
    return szPath.data();
}

/// A name made of the current UTC time; two servers get the same one only within the same second.
void GenerateName(wchar_t* pszBuffer, std::size_t nSize)
{
    const std::time_t nNow = std::time(nullptr);
    std::tm stUtc{};
    std::wcsftime(pszBuffer, nSize, L"Velmo_%Y%m%d %H%M%S", ::gmtime_r(&nNow, &stUtc));
}

/// The error in the form that the product's tools show: the manager's message, the errno, and a detail whose
/// lines and whose "1.1" are the same for every setting.
CXError clWriteError(int nErrno)
{
    constexpr const wchar_t* pszModule = L"velmomanager";
    CXError clError;
    DLLRES_SetUserError(&clError, g_stMyModule, USER_ERROR_SETTING, nErrno);
    CTString csDebug;
    csDebug.Format(L"IE%ls=%u.%u\r\nModule=<%ls>\r\nVersion=<%ls>", pszModule, 1U, 1U, pszModule,
                   g_szVersion);
    clError.AddDebugMessage(csDebug);
    return clError;
}

const wchar_t* pszNullIfEmpty(const wchar_t* pszText)
{
    return pszText != nullptr && *pszText != L'\0' ? pszText : nullptr;
}
} // namespace

CConfig::CConfig(const wchar_t* pszDirectory) : m_csDirectory(csOwnDirectory(pszDirectory))
{
    // Through the macro, so that this path is cut to a path buffer like every other one.
    CPathBuffer szFile{};
    CopyPath(L"%%EXE%%DXConf.ini", szFile.data());
    __PatchPath(szFile.data());
    m_csFile = szFile.data();
}

void CConfig::__PatchPath(wchar_t* pszPath) const
{
    constexpr std::wstring_view csExe = L"%%EXE%%";
    constexpr std::wstring_view csProgramData = L"%%COMMONAPPDATA%%";
    if (std::wstring_view(pszPath).starts_with(csExe)) {
        ReplaceMacro(pszPath, csExe.size(), m_csDirectory);
    }

    // Only the first 7 characters are compared, as many as the other macro has: "%%COMMO" already counts, and
    // the whole macro's length, 17 characters of the path, is replaced. Clients rely on it.
    if (std::wstring_view(pszPath).starts_with(csProgramData.substr(0, csExe.size()))) {
        ReplaceMacro(pszPath, csProgramData.size(), __GetProgramData());
    }
}

template <class T>
T CConfig::_Read(const settings::STNumber<T>& st) const
{
    return static_cast<T>(GetPrivateProfileInt(st.pszSection, st.pszKey, st.nDefault, m_csFile.c_str()));
}

void CConfig::_Read(const settings::STText& st, wchar_t* pszBuffer) const
{
    GetPrivateProfileString(st.pszSection, st.pszKey, st.pszDefault, pszBuffer, st.nSize, m_csFile.c_str());
}

bool CConfig::_bReadDirectory(const settings::STText& st, wchar_t* pszBuffer) const
{
    _Read(st, pszBuffer);
    __PatchPath(pszBuffer);
    EndInSlash(pszBuffer);
    return *pszBuffer != L'\0';
}

template <class TSetting>
int CConfig::_Write(const TSetting& st, const wchar_t* pszValue) const
{
    return WritePrivateProfileString(st.pszSection, st.pszKey, pszValue, m_csFile.c_str());
}

template <class TSetting>
void CConfig::__xWritePrivateProfileString(const TSetting& st, const wchar_t* pszValue)
{
    if (_Write(st, pszValue) == 0) {
        throw clWriteError(errno);
    }
}

template <class T, class TNumber>
void CConfig::_xWriteNumber(const settings::STNumber<T>& st, TNumber nValue)
{
    __xWritePrivateProfileString(st, std::to_wstring(nValue).c_str());
}

void CConfig::GetServerName(wchar_t* pszBuffer) const
{
    _Read(settings::Name, pszBuffer);
    if (*pszBuffer == L'\0') {
        GenerateName(pszBuffer, settings::Name.nSize);
        std::ignore = _Write(settings::Name, pszBuffer); // if it fails, the next call makes another name
    }
}

ELogMode CConfig::eGetLogMode() const
{
    std::array<wchar_t, settings::ErrorLogMode.nSize> szMode{};
    _Read(settings::ErrorLogMode, szMode.data());

    // The case of letters counts here, unlike in the words of other settings.
    const std::wstring_view csMode(szMode.data());
    if (csMode == L"FILE") {
        return LOG_MODE_FILE;
    }
    return csMode == L"SYSTEM" ? LOG_MODE_SYSTEM : LOG_MODE_OFF;
}

void CConfig::GetLogFileName(wchar_t* pszBuffer) const
{
    _Read(settings::ErrorLogFile, pszBuffer);
    __PatchPath(pszBuffer);
}

int CConfig::nGetsocketOptions() const
{
    struct STKeyword
    {
        std::wstring_view csKeyword;
        int nOption;
    };
    static constexpr STKeyword s_tKeywords[] = {
        {L"IPV4_ONLY", 1}, {L"IPV6_ONLY", 2}, {L"IPV4_IPV6", 0}, {L"IPV6_IPV4", 0}};

    std::array<wchar_t, settings::SocketOptions.nSize> szValue{};
    _Read(settings::SocketOptions, szValue.data());

    // The commas alone separate: a keyword with a space beside it is unknown, and unknown ones are ignored.
    int nOptions = 0;
    for (const wchar_t* psz = szValue.data(); *psz != L'\0';) {
        const std::size_t nLength = std::wcscspn(psz, L",");
        for (const STKeyword& st : s_tKeywords) {
            if (nLength == st.csKeyword.size() && ::wcsncasecmp(psz, st.csKeyword.data(), nLength) == 0) {
                nOptions = st.nOption; // of several known keywords the last one counts
            }
        }
        psz += nLength + (psz[nLength] == L',' ? 1 : 0);
    }
    return nOptions;
}

// clang-format off
void CConfig::GetRootDBPath(wchar_t* psz) const           { std::ignore = _bReadDirectory(settings::DBRootPath, psz); }
void CConfig::GetRootDBPathConfig(wchar_t* psz) const     { _Read(settings::DBRootPath, psz); }
void CConfig::GetStatDirectory(wchar_t* psz) const        { std::ignore = _bReadDirectory(settings::ActivityStatisticPath, psz); }
void CConfig::GetStatDirectoryConfig(wchar_t* psz) const  { _Read(settings::ActivityStatisticPath, psz); }
void CConfig::GetJNLPathConfig(wchar_t* psz) const        { _Read(settings::JNLRootPath, psz); }
void CConfig::GetJNLBackupPathConfig(wchar_t* psz) const  { _Read(settings::JNLBackupRootPath, psz); }
void CConfig::GetCrashDumpDirectory(wchar_t* psz) const   { std::ignore = _bReadDirectory(settings::DumpPath, psz); }
void CConfig::GetClusterManagerName(wchar_t* psz) const   { _Read(settings::ClusterManager, psz); }
void CConfig::GetClusterPassword(wchar_t* psz) const      { _Read(settings::NodePassword, psz); }
int CConfig::bLogConnexion() const                        { return _Read(settings::LogConnexion); }
int CConfig::bMoreThan2Go() const                         { return _Read(settings::MoreThan2Go); }
int CConfig::nGetPort() const                             { return _Read(settings::AccessPort); }
int CConfig::nGetDebuggerPort() const                     { return _Read(settings::ZLDebugPort); }
int CConfig::nGetPreVersion() const                       { return _Read(settings::PreVersion); }
uint32_t CConfig::dwGetCacheSizeMo() const                { return _Read(settings::NdxCacheSize); }
uint32_t CConfig::nGetCacheMaximumUnusedTables() const    { return _Read(settings::CacheMaxUnusedFiles); }
bool CConfig::bGetCacheTablesPrefetch() const             { return _Read(settings::CacheFilesPrefetch); }
bool CConfig::bAllowReplicIdAuto4() const                 { return _Read(settings::ReplicAllowIdAuto4); }
int CConfig::nGetWindowsFileCacheSize() const             { return _Read(settings::WindowsFileCacheSize); }
int CConfig::bWithCoreDump() const                        { return _Read(settings::WithCoreDump); }
uint32_t CConfig::dwGetCrashDumpLevel() const             { return _Read(settings::DumpLevel); }
bool CConfig::bQuerySuggestKey() const                    { return _Read(settings::KeySearch); }
int CConfig::bRestartOnFailed() const                     { return _Read(settings::RestartOnFailed); }
uint32_t CConfig::dwCheckPeriod() const                   { return _Read(settings::CheckPeriod); }
bool CConfig::bClusterNode() const                        { return _Read(settings::Cluster) == 1; }
bool CConfig::bGetClusterLastRunCrashed() const           { return _Read(settings::NodeRunning); }
uint32_t CConfig::dwGetClusterLastRunNumber() const       { return _Read(settings::LastRun); }
bool CConfig::bGetAutoAnalyseEnable() const               { return _Read(settings::AutoAnalyseEnable); }
uint32_t CConfig::dwGetAutoAnalyseWait() const            { return _Read(settings::AutoAnalyseWait); }
uint32_t CConfig::dwGetAutoAnalyseTimeBetweenScan() const { return _Read(settings::AutoAnalyseBetweenScan); }
uint32_t CConfig::dwGetAutoAnalyseTimeBetweenStat() const { return _Read(settings::AutoAnalyseBetweenStat); }
uint32_t CConfig::dwGetAutoAnalyseTimeAfterCreation() const { return _Read(settings::AutoAnalyseAfterCreation); }
uint32_t CConfig::dwGetAutoAnalyseMinWrite() const        { return _Read(settings::AutoAnalyseMinWrite); }
uint32_t CConfig::dwGetAutoAnalysePercentWrite() const    { return _Read(settings::AutoAnalysePercentWrite); }

void CConfig::SetMoreThan2Go(unsigned int b)              { _xWriteNumber(settings::MoreThan2Go, b); }
void CConfig::SetPort(uint16_t w)                         { _xWriteNumber(settings::AccessPort, w); }
void CConfig::SetDebuggerPort(uint16_t w)                 { _xWriteNumber(settings::ZLDebugPort, w); }
void CConfig::SetCacheSizeMo(uint32_t dw)                 { _xWriteNumber(settings::NdxCacheSize, dw); }
void CConfig::SetCacheMaximumUnusedTables(uint32_t dw)    { _xWriteNumber(settings::CacheMaxUnusedFiles, dw); }
void CConfig::SetWindowsFileCacheSize(int n)              { _xWriteNumber(settings::WindowsFileCacheSize, n); }
void CConfig::SetUserDaemon(const wchar_t* psz)           { __xWritePrivateProfileString(settings::DaemonUser, psz); }
void CConfig::SetStatPeriod(uint16_t w)                   { _xWriteNumber(settings::ActivityStatisticPeriod, w); }
void CConfig::SetStatMaxFileSizeMO(uint32_t dw)           { _xWriteNumber(settings::ActivityStatisticMaxFileSize, dw); }
void CConfig::SetStatDirectory(const wchar_t* psz)        { __xWritePrivateProfileString(settings::ActivityStatisticPath, psz); }
void CConfig::WriteAfterUpdate(const wchar_t* psz)        { __xWritePrivateProfileString(settings::AfterUpdateReport, psz); }
void CConfig::SetAutoAnalyseEnable(bool b)                { _xWriteNumber(settings::AutoAnalyseEnable, b ? 1 : 0); }
int CConfig::ClearAfterUpdate()                           { return _Write(settings::AfterUpdateReport, nullptr); }
int CConfig::SetJNLPath(const wchar_t* psz)               { return _Write(settings::JNLRootPath, pszNullIfEmpty(psz)); }
int CConfig::SetJNLBackupPath(const wchar_t* psz)         { return _Write(settings::JNLBackupRootPath, pszNullIfEmpty(psz)); }
int CConfig::SetClusterRunning(bool b)                    { return _Write(settings::NodeRunning, b ? L"1" : L"0"); }
int CConfig::SetClusterLastRunNumber(uint32_t dw)         { return _Write(settings::LastRun, std::to_wstring(dw).c_str()); }
// clang-format on

void CConfig::GetJNLPath(wchar_t* pszBuffer) const
{
    if (!_bReadDirectory(settings::JNLRootPath, pszBuffer)) {
        GetRootDBPath(pszBuffer);
    }
}

void CConfig::GetJNLBackupPath(wchar_t* pszBuffer) const
{
    if (!_bReadDirectory(settings::JNLBackupRootPath, pszBuffer)) {
        GetJNLPath(pszBuffer);
    }
}

bool CConfig::bGetUserDaemon(wchar_t* pszBuffer) const
{
    _Read(settings::DaemonUser, pszBuffer);
    return *pszBuffer != L'\0';
}

std::uint16_t CConfig::wGetStatPeriod() const
{
    constexpr uint32_t dwMax = 65535;
    return static_cast<std::uint16_t>(std::min(_Read(settings::ActivityStatisticPeriod), dwMax));
}

std::uint64_t CConfig::qwGetStatMaxFileSize() const
{
    // Megabytes to bytes, widened only afterwards: 4096 MB and more wrap around, and clients rely on it.
    return _Read(settings::ActivityStatisticMaxFileSize) << 20;
}

void CConfig::GetAfterUpdate(wchar_t* pszBuffer) const
{
    _Read(settings::AfterUpdateReport, pszBuffer);

    // The buffer's last character is cleared even when the text is shorter: clients rely on it.
    pszBuffer[settings::AfterUpdateReport.nSize - 1] = L'\0';
}

bool CConfig::bIsInstallerNatif() const
{
    std::array<wchar_t, settings::Installer.nSize> szValue{};
    _Read(settings::Installer, szValue.data());
    return ::wcscasecmp(szValue.data(), L"natif") == 0;
}

void CConfig::SetDBRootPath(const wchar_t* pszPath)
{
    // The directory is made at the expanded path; the file keeps the path with its macro.
    CPathBuffer szDirectory{};
    CopyPath(pszPath != nullptr ? pszPath : L"", szDirectory.data());
    __PatchPath(szDirectory.data());
    CXError clError;
    if (!CDiskFile::bCreateDirectory(szDirectory.data(), &clError)) {
        throw clError;
    }

    __xWritePrivateProfileString(settings::DBRootPath, pszPath);
}
