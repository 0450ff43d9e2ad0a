#include "support/GetLinuxDistributionName.h"

#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/SystemFiles.h"

bool GetLinuxDistributionNameAndVersion(STLinuxNameAndVersion* pstInfo)
{
    const auto csRead = [](const std::string& csPath) -> std::optional<std::string> {
        std::string csText;
        return CDiskFile::bReadFile(csFromUTF8(csPath), &csText) ? std::optional(csText) : std::nullopt;
    };
    return bRecogniseDistribution(csRead, pstInfo);
}
