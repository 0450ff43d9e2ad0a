#include "support/ResANSI.h"

#include "support/Messages.h"

#include <algorithm>
#include <array>
#include <cstddef>

// Format of the block: records back to back, ended by a record size of 0. A record, little-endian: size in
// bytes with the header (2), id (2), flags (1), length in characters (2), coded text.
namespace {
constexpr std::size_t s_nHeader = 7;
constexpr std::size_t s_nMaxRecords = 92;
constexpr unsigned int s_nVariantMask = 0x03;
constexpr unsigned int s_nWideFlag = 0x40;

static_assert(std::size(s_tMessages) <= s_nMaxRecords);
static_assert(std::is_sorted(std::begin(s_tMessages), std::end(s_tMessages),
                             [](const STMessage& st1, const STMessage& st2) { return st1.wId <= st2.wId; }),
              "ids ascend, none is there twice");

/// The markers are UTF-16, as they say; other texts only where Windows-1252 would need its table.
constexpr bool bWideText(const STMessage& st)
{
    return st.wId == 257 || st.wId == 65535 ||
           std::any_of(st.csText.begin(), st.csText.end(),
                       [](char16_t c) { return c > 0xFF || (c >= 0x80 && c < 0xA0); });
}

constexpr std::size_t nRecordSize(const STMessage& st)
{
    return s_nHeader + st.csText.size() * (bWideText(st) ? 2 : 1);
}

constexpr std::size_t nBlockSize()
{
    std::size_t nSize = 2;
    for (const STMessage& st : s_tMessages) {
        nSize += nRecordSize(st);
    }
    return nSize;
}

using CBlock = std::array<unsigned char, nBlockSize()>;

/// All records and the ending size of 0, by the compiler.
consteval CBlock tBuildBlock()
{
    CBlock tBlock{};
    std::size_t nPos = 0;
    const auto Append = [&tBlock, &nPos](std::size_t nValue, int nBytes) {
        for (; nBytes > 0; --nBytes, nValue >>= 8) {
            tBlock[nPos++] = static_cast<unsigned char>(nValue & 0xFF);
        }
    };
    for (const STMessage& st : s_tMessages) {
        const bool bWide = bWideText(st);
        Append(nRecordSize(st), 2);
        Append(st.wId, 2);
        Append(bWide ? s_nWideFlag : 0, 1);
        Append(st.csText.size(), 2);
        for (const char16_t c : st.csText) {
            Append(c, bWide ? 2 : 1);
        }
    }
    return tBlock;
}

constexpr CBlock s_tBlock = tBuildBlock();

constexpr unsigned int nWordAt(std::size_t nOffset)
{
    return s_tBlock[nOffset] | static_cast<unsigned int>(s_tBlock[nOffset + 1]) << 8;
}

/// Offset of each record in the block.
consteval std::array<std::size_t, std::size(s_tMessages)> tBuildIndex()
{
    std::array<std::size_t, std::size(s_tMessages)> tOffsets{};
    std::size_t nOffset = 0;
    for (std::size_t& nRecord : tOffsets) {
        nRecord = nOffset;
        nOffset += nWordAt(nOffset);
    }
    return tOffsets;
}

class CResAnsi602
{
public:
    /// Offset of the record with this id, 0 when there is none: the first record, at offset 0, is never
    /// found.
    static std::size_t nFind(unsigned int nId)
    {
        std::size_t nLow = 1;
        std::size_t nHigh = m_stRessource.size();
        while (nLow < nHigh) {
            const std::size_t nMiddle = (nLow + nHigh) / 2;
            const int nOrder = nCompareRes(nId, m_stRessource[nMiddle]);
            if (nOrder == 0) {
                return m_stRessource[nMiddle];
            }
            (nOrder > 0 ? nLow : nHigh) = nOrder > 0 ? nMiddle + 1 : nMiddle;
        }
        return 0;
    }

private:
    static int nCompareRes(unsigned int nId, std::size_t nOffset)
    {
        return static_cast<int>(nId & 0xFFFF) - static_cast<int>(nWordAt(nOffset + 2));
    }

    static constexpr std::array m_stRessource = tBuildIndex();
};
} // namespace

bool bGetResAnsi602(unsigned int nId, STRessourceModule& stResource)
{
    const std::size_t nOffset = CResAnsi602::nFind(nId);
    if (nOffset == 0) {
        return false;
    }
    const unsigned int nFlags = s_tBlock[nOffset + 4];
    stResource.pText = s_tBlock.data() + nOffset + s_nHeader;
    stResource.nLength = nWordAt(nOffset + 5);
    stResource.nVariant = nFlags & s_nVariantMask;
    stResource.nCharWidth = (nFlags & s_nWideFlag) != 0 ? 2 : 1;
    return true;
}
