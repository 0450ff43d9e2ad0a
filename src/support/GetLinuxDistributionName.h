#pragma once

#include <string>

/// How a distribution describes itself: UTF-8 texts, empty where unknown.
struct STLinuxNameAndVersion
{
    std::string csId;
    std::string csVersion;
    std::string csDescription;
};

/// Recognises the distribution from the files in /etc; false, and an empty record, when none is recognised.
bool GetLinuxDistributionNameAndVersion(STLinuxNameAndVersion* pstInfo);
