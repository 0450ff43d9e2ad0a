#pragma once

#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "tools/PrivateWorld.h"

#include <gtest/gtest.h>
#include <string>

/// How often one text stands in another, as a call in a tool's journal.
inline int nCount(const std::string& csText, const std::string& csPart)
{
    int nFound = 0;
    for (std::size_t n = csText.find(csPart); n != std::string::npos; n = csText.find(csPart, n + 1)) {
        ++nFound;
    }
    return nFound;
}

/// A private world that counts as one with systemd; a test puts its own tool in systemctl's place.
class CSystemdTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        REQUIRE_PRIVATE_WORLD();
        CLanceProcessus::sInit();
        CServiceManager::ms_eDistri = DISTRI_SYSTEMD;
    }
    void TearDown() override
    {
        CLanceProcessus::sTerm();
        CServiceManager::ms_eDistri = DISTRI_UNKNOWN;
    }
    CServiceManager m_clManager;
};
