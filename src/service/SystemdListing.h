#pragma once

#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"

#include <string_view>
#include <vector>

/// A listing of units, asked in batches: a launch of systemctl costs some milliseconds, one more name in its
/// arguments next to nothing. A batch is asked when its first unit is to be handed out.
///
/// What systemctl prints about a batch is trusted only when it has one block for each unit, in the order
/// asked. Otherwise, and when systemctl fails, the units of the batch are asked about one by one, as a lookup
/// does.
class CSystemdListing : public CServiceEnumeration
{
public:
    /// Units in a batch: the launcher takes 50 words, of which three are the program, the properties and
    /// "show".
    static constexpr std::size_t s_nBatch = 47;

    /// The manager must outlive the listing. Names that no unit can have are left out.
    CSystemdListing(CServiceManager* pclManager, std::vector<CServiceName> tNames);

private:
    bool _bMore() override;
    /// Asks about a batch in one launch. False, with nothing added, when the output cannot be trusted.
    bool _bAskTogether(std::size_t nFirst, std::size_t nEnd);
    /// Asks about each unit of a batch in a launch of its own; stops at the first failure.
    void _AskEach(std::size_t nFirst, std::size_t nEnd);
    /// Adds a unit. Null with ENOENT leaves it out; null with any other errno makes the listing fail.
    void _AddOrFail(std::unique_ptr<CService> pclService);

    CServiceManager* m_pclManager;
    std::vector<CServiceName> m_tNames;
    std::size_t m_nNext = 0; ///< units before this one have been asked about
};
