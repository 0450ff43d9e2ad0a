#include "support/SystemInfo.h"

#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/SystemFiles.h"

#include <cstdint>
#include <ctime>
#include <mutex>
#include <strings.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>

namespace {
using STSystemInfo = struct sysinfo; // a function has the structure's name

/// Reported for each quantity when neither /proc nor sysinfo() works.
constexpr std::uint64_t s_qwUnknownMemory = 16777216;

/// The record of the last reading, and the second since 1970 in which it was read.
struct STMemoryCache
{
    std::mutex clMutex;
    tagMEMORYSTATUSEX stStatus{};
    std::time_t nSecond = -1;
};

/// Reads /proc/meminfo. Where it cannot be read, asks sysinfo(), which counts the page cache as used memory.
void ReadMemoryStatus(tagMEMORYSTATUSEX* pst)
{
    std::string csText;
    if (CDiskFile::bReadFile(L"/proc/meminfo", &csText)) {
        ParseMemInfo(csText, pst);
        return;
    }

    STSystemInfo stInfo{};
    pst->dwMemoryLoad = 0;
    pst->qwTotalPhys = pst->qwAvailPhys = pst->qwTotalSwap = pst->qwFreeSwap = s_qwUnknownMemory;
    if (::sysinfo(&stInfo) == 0) {
        pst->qwTotalPhys = std::uint64_t{stInfo.totalram} * stInfo.mem_unit;
        pst->qwAvailPhys = std::uint64_t{stInfo.freeram} * stInfo.mem_unit;
        pst->qwTotalSwap = std::uint64_t{stInfo.totalswap} * stInfo.mem_unit;
        pst->qwFreeSwap = std::uint64_t{stInfo.freeswap} * stInfo.mem_unit;
    }
}

/// The distribution's description; without one the kernel's name, or "?".
std::string csSystemName(const utsname* pstName)
{
    STLinuxNameAndVersion stInfo;
    if (!GetLinuxDistributionNameAndVersion(&stInfo) || stInfo.csDescription.empty()) {
        return pstName != nullptr ? pstName->sysname : "?";
    }
    const bool bNamesLinux = ::strncasecmp(stInfo.csDescription.c_str(), "linux", 5) == 0;
    return (bNamesLinux ? "" : "Linux ") + stInfo.csDescription;
}
} // namespace

void AddOSInfo(CTString* pcsText)
{
    utsname stName{};
    const utsname* const pstName = ::uname(&stName) == 0 ? &stName : nullptr;

    *pcsText += csFromUTF8(csSystemName(pstName));
    *pcsText += L'\t';
    *pcsText += csFromUTF8(pstName != nullptr ? pstName->release : "?");
}

void AddCPUInfo(CTString* pcsText)
{
    std::string csText;
    CDiskFile::bReadFile(L"/proc/cpuinfo", &csText);
    const STCpuInfo stInfo = stParseCpuInfo(csText); // without /proc the text is empty, and the count 0

    if (stInfo.nCount == 0) {
        *pcsText += L"?";
        return;
    }

    if (stInfo.nCount >= 2) {
        *pcsText += std::to_wstring(stInfo.nCount) + L" x ";
    }
    *pcsText += csFromUTF8(stInfo.csModel);
}

void GlobalMemoryStatusEx(tagMEMORYSTATUSEX* pstStatus)
{
    static STMemoryCache s_stCache;
    const std::lock_guard<std::mutex> clLock(s_stCache.clMutex);

    // "Not the same second" rather than "later": the cache must not last when somebody sets the clock back.
    const std::time_t nNow = std::time(nullptr);
    if (s_stCache.nSecond != nNow) {
        ReadMemoryStatus(&s_stCache.stStatus);
        s_stCache.nSecond = nNow;
    }

    const std::uint32_t dwLength = pstStatus->dwLength;
    *pstStatus = s_stCache.stStatus;
    pstStatus->dwLength = dwLength;
}
