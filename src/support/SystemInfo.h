#pragma once

#include "support/XYString.h"

#include <cstdint>

/// Appends the distribution's description, with "Linux " before it unless it begins with that word, a tab and
/// the kernel release; "?" for what cannot be read.
void AddOSInfo(CTString* pcsText);
/// Appends the number of processors and their model ("8 x Model", the model alone for one processor, "?" when
/// unknown).
void AddCPUInfo(CTString* pcsText);

/// Memory figures in the shape of the Windows call; bytes.
struct tagMEMORYSTATUSEX
{
    std::uint32_t dwLength;     ///< set by the caller, ignored
    std::uint32_t dwMemoryLoad; ///< percent
    std::uint64_t qwTotalPhys;
    std::uint64_t qwAvailPhys;
    std::uint64_t qwTotalSwap;
    std::uint64_t qwFreeSwap;
};
/// Fills the record. The figures are at most one second old: one cache serves the process. Any thread.
void GlobalMemoryStatusEx(tagMEMORYSTATUSEX* pstStatus);
