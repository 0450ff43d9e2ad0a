#pragma once

#include "service/AServiceUnix.h"
#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "tools/PrivateWorld.h"

#include <gtest/gtest.h>
#include <numeric>
#include <set>
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

/// The names of a listing, sorted, a space after each; "failed" when it failed, and after them where that was
/// too late.
inline std::wstring csListed(CServiceManager* pclManager, const wchar_t* pszPrefix = L"DXCS-")
{
    CServiceListing clListing(pclManager, pszPrefix);
    std::multiset<std::wstring> tNames;
    while (const auto pcl = clListing.pclNext()) {
        tNames.insert(pcl->pszGetName() + std::wstring(L" "));
    }
    EXPECT_EQ(clListing.bFailed(), clListing.nError() != 0);
    return std::accumulate(tNames.begin(), tNames.end(), std::wstring()) +
           (clListing.bFailed() ? L"failed" : L"");
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
