#pragma once

#include "support/GetLinuxDistributionName.h"
#include "support/SystemInfo.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

// Readers of the texts in which the system describes itself: text in, record out, no file is touched. They
// take any text whatever; what does not have the expected form is skipped.

struct STCpuInfo
{
    unsigned int nCount = 0;
    std::string csModel;
};
/// "/proc/cpuinfo": the highest processor number plus one, and the last model name. Lines count to 200 bytes.
STCpuInfo stParseCpuInfo(std::string_view csText);

/// "/proc/meminfo", of today's kernels and of the old ones that give a table in bytes. Lines count to 256
/// bytes. Sets the quantities and the load, not dwLength.
void ParseMemInfo(std::string_view csText, tagMEMORYSTATUSEX* pstStatus);

/// Keys of a file of "KEY=value" lines that describes the distribution, each with its "=".
struct STReleaseKeys
{
    std::string_view csId;
    std::string_view csVersion;
    std::string_view csDescription;
};
/// True when the file names the distribution or describes it.
bool readEtcFile(std::string_view csText, const STReleaseKeys& stKeys, STLinuxNameAndVersion* pstInfo);

/// Content of a file; nothing when it cannot be read.
using CReadFile = std::function<std::optional<std::string>(const std::string& csPath)>;
/// Recognises the distribution from the files that csRead finds.
bool bRecogniseDistribution(const CReadFile& csRead, STLinuxNameAndVersion* pstInfo);
