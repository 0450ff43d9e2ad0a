#include "support/ResANSI.h"

#include "support/Messages.h"

#include <algorithm>
#include <iterator>

static_assert(std::is_sorted(std::begin(s_tMessages), std::end(s_tMessages),
                             [](const STMessage& st1, const STMessage& st2) { return st1.wId <= st2.wId; }),
              "ids ascend, none is there twice");

bool bGetResAnsi602(unsigned int nId, std::wstring_view& csText)
{
    const unsigned int nWanted = nId & 0xFFFF;
    const auto pFound =
        std::lower_bound(std::begin(s_tMessages), std::end(s_tMessages), nWanted,
                         [](const STMessage& st, unsigned int nNumber) { return st.wId < nNumber; });
    if (pFound == std::end(s_tMessages) || pFound->wId != nWanted) {
        return false;
    }
    csText = pFound->csText;
    return true;
}
