#pragma once

#include <cstdint>

/// What a lookup returns: where a coded text lies in the block and how to read it. Points into static data.
struct STRessourceModule
{
    const unsigned char* pText;
    unsigned int nLength;    ///< characters, once decoded
    unsigned int nVariant;   ///< coding variant, bits 0-1 of the record's flags
    unsigned int nCharWidth; ///< 2 when bit 6 of the flags is set, else 1
};

/// Finds the record of a message in the manager's resource block (nId is taken as its low 16 bits). Any
/// thread.
bool bGetResAnsi602(unsigned int nId, STRessourceModule& stResource);
