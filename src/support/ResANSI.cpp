#include "support/ResANSI.h"

#include "support/Messages.h"

#include <algorithm>
#include <functional>
#include <iterator>

static_assert(std::ranges::adjacent_find(s_tMessages, std::ranges::greater_equal(), &STMessage::wId) ==
                  std::end(s_tMessages),
              "ids ascend, and each is there once: the search needs it");

bool bGetResAnsi602(unsigned int nId, std::wstring_view& csText)
{
    const unsigned int nWanted = nId & 0xFFFF;
    const auto* const pFound =
        std::ranges::lower_bound(s_tMessages, nWanted, std::ranges::less(), &STMessage::wId);
    if (pFound == std::end(s_tMessages) || pFound->wId != nWanted) {
        return false;
    }
    csText = pFound->csText;
    return true;
}
