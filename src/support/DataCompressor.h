#pragma once

#include "support/ResANSI.h"

#include <memory>

/// Decodes the texts of the resource block. There is one coding, variant 0: the plain text, in Windows-1252
/// bytes (character width 1) or UTF-16 little-endian units (width 2).
class CDataCompressor
{
public:
    /// The text with its terminator; null when the variant or the width is unknown.
    static std::unique_ptr<wchar_t[]> s_pszDeCompress(const STRessourceModule& stResource);
};
