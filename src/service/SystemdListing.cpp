// Asks systemctl about many units in few launches.

#include "service/SystemdListing.h"

#include "service/Systemctl.h"
#include "service/SystemctlOutput.h"
#include "support/Conversion.h"

#include <algorithm>
#include <cerrno>

CSystemdListing::CSystemdListing(CServiceManager* pclManager, std::vector<CServiceName> tNames)
    : m_pclManager(pclManager), m_tNames(std::move(tNames))
{
    std::erase_if(m_tNames, [](const CServiceName& clName) { return clName.csAsked().empty(); });
}

bool CSystemdListing::_bMore()
{
    if (m_nNext == m_tNames.size()) {
        return false;
    }

    const std::size_t nFirst = m_nNext;
    m_nNext = std::min(nFirst + s_nBatch, m_tNames.size());

    // For one unit alone a batch saves nothing, while a lookup asks again when systemctl fails.
    const bool bAlone = m_nNext - nFirst == 1;
    if (bAlone || !_bAskTogether(nFirst, m_nNext)) {
        _AskEach(nFirst, m_nNext);
    }
    return true;
}

bool CSystemdListing::_bAskTogether(std::size_t nFirst, std::size_t nEnd)
{
    std::wstring csArguments = L"--property=Id,Description,ExecStart,Type show";
    for (std::size_t n = nFirst; n < nEnd; ++n) {
        csArguments += L" " + m_tNames[n].csAsked();
    }

    // Once only: after a failure each unit is asked about by itself. An output with an "Id" counts as an
    // answer even when systemctl fails; whether it covers the whole batch is checked below.
    const std::optional<std::string> csAnswer = csAskSystemctlOnce({csArguments, "Id"});
    if (!csAnswer) {
        return false;
    }

    // A unit's description may look like the lines of another unit: count the blocks, and compare each "Id".
    const std::vector<std::string_view> tBlocks = tReadBlocks(*csAnswer);
    const auto bIsOf = [](std::string_view csBlock, const CServiceName& clName) {
        return csReadId(csBlock) == csToUTF8(clName.csUnitFile());
    };
    if (!std::equal(tBlocks.begin(), tBlocks.end(), m_tNames.begin() + static_cast<std::ptrdiff_t>(nFirst),
                    m_tNames.begin() + static_cast<std::ptrdiff_t>(nEnd), bIsOf)) {
        return false;
    }

    for (std::size_t n = nFirst; n < nEnd && nError() == 0; ++n) {
        _AddOrFail(m_pclManager->_pclMakeShown(m_tNames[n].clRegistered(), tBlocks[n - nFirst]));
    }
    return true;
}

void CSystemdListing::_AskEach(std::size_t nFirst, std::size_t nEnd)
{
    for (std::size_t n = nFirst; n < nEnd && nError() == 0; ++n) {
        _AddOrFail(m_pclManager->__pclGetServiceSystemd(m_tNames[n]));
    }
}

void CSystemdListing::_AddOrFail(std::unique_ptr<CService> pclService)
{
    if (pclService != nullptr) {
        _Add(std::move(pclService));
    } else if (errno != ENOENT) {
        // The unit may exist: a listing without it would say that it does not.
        _Fail(errno);
    }
}
