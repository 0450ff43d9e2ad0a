#pragma once

#include "support/XYString.h"

#include <cstdint>

/// Appends the system's name (the distribution's description, "Linux " in front where it does not begin so),
/// a tab and the kernel release; "?" for what the system does not tell.
void AddOSInfo(CTString* pcsText);
/// Appends the processor count and model ("8 x Model", the model alone for one processor, "?" when unknown).
void AddCPUInfo(CTString* pcsText);

/// Memory figures in the shape of the Windows call; bytes.
struct tagMEMORYSTATUSEX
{
    std::uint32_t dwLength;     ///< set by the caller, not looked at
    std::uint32_t dwMemoryLoad; ///< percent
    std::uint64_t qwTotalPhys;
    std::uint64_t qwAvailPhys;
    std::uint64_t qwTotalSwap;
    std::uint64_t qwFreeSwap;
};
/// Fills the record; figures are at most one second old (process-wide cache, any thread).
void GlobalMemoryStatusEx(tagMEMORYSTATUSEX* pstStatus);
