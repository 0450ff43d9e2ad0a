#pragma once

#include "support/GetLinuxDistributionName.h"
#include "support/SystemInfo.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Readers of the texts in which the kernel and the distribution describe themselves: text in, record out, no
// file is opened. They take any text; lines that do not have the expected form are skipped.

struct STCpuInfo
{
    unsigned int nCount = 0;
    std::string csModel;
};
/// Reads "/proc/cpuinfo": the highest processor number plus one, and the last model name. Only the first 200
/// bytes of a line count.
STCpuInfo stParseCpuInfo(std::string_view csText);

/// Reads "/proc/meminfo" of today's kernels, and of old ones, whose file has a table in bytes. Only the first
/// 256 bytes of a line count. Sets the quantities and the load, not dwLength.
void ParseMemInfo(std::string_view csText, tagMEMORYSTATUSEX* pstStatus);

/// The keys, each with its "=", by which a file of "KEY=value" lines describes the distribution.
struct STReleaseKeys
{
    std::string_view csId;
    std::string_view csVersion;
    std::string_view csDescription;
};
/// Reads such a file; true when it has an id or a description.
bool readEtcFile(std::string_view csText, const STReleaseKeys& stKeys, STLinuxNameAndVersion* pstInfo);

/// Returns the content of a file; nothing when it cannot be read.
using CReadFile = std::function<std::optional<std::string>(const std::string& csPath)>;
/// Recognises the distribution from the files that csRead finds. False, and an empty record, when there are
/// none that say.
bool bRecogniseDistribution(const CReadFile& csRead, STLinuxNameAndVersion* pstInfo);
