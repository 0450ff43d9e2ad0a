#pragma once

#include <string>

/// UTF-8 texts; empty where unknown.
struct STLinuxNameAndVersion
{
    std::string csId;
    std::string csVersion;
    std::string csDescription;
};

/// True when a distribution was recognised from the files in /etc.
bool GetLinuxDistributionNameAndVersion(STLinuxNameAndVersion* pstInfo);
