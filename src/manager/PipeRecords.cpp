#include "manager/PipeRecords.h"

#include "support/Conversion.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

static_assert(std::endian::native == std::endian::little, "records are copied without swapping bytes");

namespace {
/// Characters before the first NUL of a field; the whole field when it has none.
template <class TField>
std::size_t nTextLength(const TField& tField)
{
    const auto itNul = std::ranges::find(tField, typename TField::value_type{});
    return static_cast<std::size_t>(itNul - tField.begin());
}

/// The same bytes as a record of another type. By hand, because g++ 10 has no std::bit_cast.
template <class TRecord, class TBytes>
TRecord stReadAs(const TBytes& tBytes)
{
    static_assert(sizeof(TRecord) == sizeof(TBytes) && std::is_trivially_copyable_v<TRecord> &&
                  std::is_trivially_copyable_v<TBytes>);
    TRecord stRecord;
    std::memcpy(&stRecord, &tBytes, sizeof stRecord);
    return stRecord;
}

template <std::size_t nSize>
std::string csText(const std::array<char, nSize>& szField)
{
    return {szField.data(), nTextLength(szField)};
}
} // namespace

STRegistration stReadAnsi(const stSEND& stSend)
{
    const auto stContent = stReadAs<STSendAnsi>(stSend.tContent);
    return {csWide(csText(stContent.szName), CP_1252), csWide(csText(stContent.szPath), CP_1252),
            static_cast<std::uint16_t>(std::strtol(csText(stContent.szPort).c_str(), nullptr, 10))};
}

STRegistration stReadUTF16(const stSEND& stSend)
{
    const auto stContent = stReadAs<STSendUTF16>(stSend.tContent);
    return {csFromUTF16(stContent.szName.data(), nTextLength(stContent.szName)),
            csFromUTF16(stContent.szPath.data(), nTextLength(stContent.szPath)), stContent.wPort};
}

void WriteReply(std::string_view csText, stRET* pstReturn)
{
    *pstReturn = {}; // nothing of an earlier reply or of our memory goes out
    csText.copy(pstReturn->szText.data(), nCutUTF8(csText, pstReturn->szText.size()));
}
