#pragma once

#include <cstdint>

/// The settings of "DXConf.ini": section, key, type and default of each, written once. The getters and
/// setters of CConfig follow from these rows; docs/settings.md explains each setting to the administrator.
namespace settings {
/// A number. T is what the getter returns: a bool is true for any number but 0, other types take the number's
/// low bits.
template <class T>
struct STNumber
{
    const wchar_t* pszSection;
    const wchar_t* pszKey;
    int nDefault;
};

/// A text of at most nSize - 1 characters.
struct STText
{
    const wchar_t* pszSection;
    const wchar_t* pszKey;
    const wchar_t* pszDefault;
    unsigned int nSize;
};

using std::uint32_t;

// clang-format off
inline constexpr STText             Name                        {L"INIT", L"Name", L"", 260};
inline constexpr STText             ErrorLogMode                {L"INIT", L"ErrorLogMode", L"SYSTEM", 20};
inline constexpr STText             ErrorLogFile                {L"INIT", L"ErrorLogFile", L"%%EXE%%EventLog.txt", 260};
inline constexpr STText             SocketOptions               {L"INIT", L"SocketOptions", L"IPV4_IPV6", 260};
inline constexpr STText             DBRootPath                  {L"INIT", L"DBRootPath", L"%%EXE%%DB\\", 260};
inline constexpr STNumber<int>      LogConnexion                {L"INIT", L"LogConnexion", 0};
inline constexpr STNumber<int>      MoreThan2Go                 {L"INIT", L"MoreThan2Go", 0};
inline constexpr STNumber<int>      AccessPort                  {L"INIT", L"AccessPort", 4900};
inline constexpr STNumber<int>      ZLDebugPort                 {L"INIT", L"ZLDebugPort", 27281};
inline constexpr STNumber<int>      PreVersion                  {L"INIT", L"PreVersion", 0};
inline constexpr STNumber<uint32_t> NdxCacheSize                {L"INIT", L"NdxCacheSize", 100};
inline constexpr STNumber<uint32_t> CacheMaxUnusedFiles         {L"INIT", L"CacheMaxUnusedFiles", 128};
inline constexpr STNumber<bool>     CacheFilesPrefetch          {L"INIT", L"CacheFilesPrefetch", 1};
inline constexpr STNumber<bool>     ReplicAllowIdAuto4          {L"INIT", L"ReplicAllowIdAuto4", 0};
inline constexpr STNumber<int>      WindowsFileCacheSize        {L"INIT", L"WindowsFileCacheSize", -1};
inline constexpr STNumber<int>      WithCoreDump                {L"INIT", L"WithCoreDump", 0};
inline constexpr STText             DaemonUser                  {L"INIT", L"DaemonUser", L"", 300};
inline constexpr STNumber<uint32_t> ActivityStatisticPeriod     {L"INIT", L"ActivityStatisticPeriod", 0};
inline constexpr STNumber<uint32_t> ActivityStatisticMaxFileSize{L"INIT", L"ActivityStatisticMaxFileSize", 500};
// The backslash after the macro stays, so this default expands to "...//ActivityStatistics/".
inline constexpr STText             ActivityStatisticPath       {L"INIT", L"ActivityStatisticPath",
                                                                 L"%%EXE%%\\ActivityStatistics", 260};
inline constexpr STText             AfterUpdateReport           {L"INIT", L"AfterUpdateReport", L"", 500};
inline constexpr STText             Installer                   {L"INIT", L"Installer", L"", 99};
inline constexpr STText             JNLRootPath                 {L"INIT", L"JNLRootPath", L"", 260};
inline constexpr STText             JNLBackupRootPath           {L"INIT", L"JNLBackupRootPath", L"", 260};
inline constexpr STNumber<uint32_t> DumpLevel                   {L"INIT", L"DumpLevel", 0};
inline constexpr STText             DumpPath                    {L"INIT", L"DumpPath", L"%%EXE%%Dump\\", 260};
inline constexpr STNumber<bool>     KeySearch                   {L"INIT", L"KeySearch", 1};
inline constexpr STNumber<int>      RestartOnFailed             {L"MANAGER", L"RestartOnFailed", 1};
inline constexpr STNumber<uint32_t> CheckPeriod                 {L"MANAGER", L"CheckPeriod", 600};
inline constexpr STNumber<int>      Cluster                     {L"ClusterNode", L"Cluster", 0};
inline constexpr STText             ClusterManager              {L"ClusterNode", L"ClusterManager", L"", 1025};
inline constexpr STText             NodePassword                {L"ClusterNode", L"NodePassword", L"", 260};
inline constexpr STNumber<bool>     NodeRunning                 {L"ClusterNode", L"NodeRunning", 0};
inline constexpr STNumber<uint32_t> LastRun                     {L"ClusterNode", L"LastRun", 0};
inline constexpr STNumber<bool>     AutoAnalyseEnable           {L"AUTOANALYSE", L"ENABLE", 1};
inline constexpr STNumber<uint32_t> AutoAnalyseWait             {L"AUTOANALYSE", L"WAIT", 10};
inline constexpr STNumber<uint32_t> AutoAnalyseBetweenScan      {L"AUTOANALYSE", L"TIME_BETWEEN_SCAN", 600000};
inline constexpr STNumber<uint32_t> AutoAnalyseBetweenStat      {L"AUTOANALYSE", L"TIME_BETWEEN_CALC", 604800};
inline constexpr STNumber<uint32_t> AutoAnalyseAfterCreation    {L"AUTOANALYSE", L"TIME_AFTER_CREATION", 86400};
inline constexpr STNumber<uint32_t> AutoAnalyseMinWrite         {L"AUTOANALYSE", L"MINIMUM_WRITE", 1000};
inline constexpr STNumber<uint32_t> AutoAnalysePercentWrite     {L"AUTOANALYSE", L"PERCENT_WRITE", 10};
// clang-format on
} // namespace settings
