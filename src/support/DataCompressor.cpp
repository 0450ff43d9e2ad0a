#include "support/DataCompressor.h"

#include "support/Conversion.h"

std::unique_ptr<wchar_t[]> CDataCompressor::s_pszDeCompress(const STRessourceModule& stResource)
{
    if (stResource.nVariant != 0 || (stResource.nCharWidth != 1 && stResource.nCharWidth != 2)) {
        return nullptr;
    }
    const std::wstring csText =
        stResource.nCharWidth == 2
            ? csFromUTF16(stResource.pText, stResource.nLength)
            : csWide({reinterpret_cast<const char*>(stResource.pText), stResource.nLength}, CP_1252);
    // The classic size of the buffer; every coded unit becomes at most one character.
    const std::size_t nSize = stResource.nLength + stResource.nLength / 2 + 2;
    auto pszText = std::make_unique<wchar_t[]>(nSize);
    csText.copy(pszText.get(), nSize - 1);
    return pszText;
}
