#pragma once

#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"

#include <string_view>
#include <vector>

/// A listing of units: one launch of systemctl for as many of them as its arguments have room for, since a
/// launch costs some milliseconds and one more name next to nothing. The units of a batch are asked for when
/// the first of them is handed out.
///
/// What systemctl prints of several units is trusted only when it is one block for each, in the order asked.
/// Otherwise, and when the batch fails, its units are asked one by one, as a lookup asks.
class CSystemdListing : public CServiceEnumeration
{
public:
    /// Units to a batch: the launcher has room for 50 words, of which three are the program, the properties
    /// and "show".
    static constexpr std::size_t s_nBatch = 47;

    /// The manager is not owned. Names that no unit can have are left out.
    CSystemdListing(CServiceManager* pclManager, std::vector<CServiceName> tNames);

private:
    bool _bMore() override;
    /// False when the output is none that can be trusted; nothing has been added then.
    bool _bAskTogether(std::size_t nFirst, std::size_t nEnd);
    void _AskEach(std::size_t nFirst, std::size_t nEnd);
    /// Adds a unit that exists; one that does not is left out, and one of which that is not known makes the
    /// listing failed.
    void _AddOrFail(std::unique_ptr<CService> pclService);

    CServiceManager* m_pclManager;
    std::vector<CServiceName> m_tNames;
    std::size_t m_nNext = 0; ///< units before this one have been asked for
};
