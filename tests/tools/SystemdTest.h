#pragma once

#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "tools/PrivateWorld.h"

#include <gtest/gtest.h>

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
