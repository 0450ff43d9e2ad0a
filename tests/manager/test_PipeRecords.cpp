#include "manager/PipeRecords.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {
/// Bytes put at places of an otherwise empty record.
struct stPiece
{
    std::size_t nOffset;
    std::string csBytes;
};
stSEND stRecord(std::initializer_list<stPiece> tPieces)
{
    stSEND st{};
    for (const stPiece& stPart : tPieces) {
        std::memcpy(reinterpret_cast<char*>(&st) + stPart.nOffset, stPart.csBytes.data(),
                    stPart.csBytes.size());
    }
    return st;
}
std::string csUnits(std::u16string_view cs)
{
    return {reinterpret_cast<const char*>(cs.data()), cs.size() * 2};
}
} // namespace

TEST(PipeRecords, SingleByteTextsAreReadFromTheirOffsets)
{
    const auto st = stReadAnsi(stRecord({{8, "Caf\xe9 \x80"}, {269, "/opt/dx/srv"}, {530, "4900"}}));
    EXPECT_EQ(st.csName, L"Caf\u00e9 \u20ac");
    EXPECT_EQ(st.csPath, L"/opt/dx/srv");
    EXPECT_EQ(st.wPort, 4900);
}

TEST(PipeRecords, PortDigitsKeepTheirLow16Bits)
{
    const struct
    {
        std::string csDigits;
        int nPort;
    } tCases[] = {{"70000", 4464}, {"65535", 65535}, {"65536", 0}, {"-1", 65535},
                  {" +12x9", 12},  {"", 0},          {"x", 0},     {std::string(262, '0'), 0}};
    for (const auto& st : tCases) {
        EXPECT_EQ(stReadAnsi(stRecord({{530, st.csDigits}})).wPort, st.nPort) << st.csDigits;
    }
}

TEST(PipeRecords, UTF16TextsAreReadFromTheirOffsets)
{
    const auto st =
        stReadUTF16(stRecord({{8, "\x24\x13"}, {10, csUnits(u"\u0416\U0001F600")}, {268, csUnits(u"/s")}}));
    EXPECT_EQ(st.csName, L"\u0416\U0001F600");
    EXPECT_EQ(st.csPath, L"/s");
    EXPECT_EQ(st.wPort, 4900);
    const auto stHostile = stReadUTF16(stRecord({{10, csUnits({u"a\xD800z\xDC00", 4})}}));
    EXPECT_EQ(stHostile.csName, L"a\uFFFDz\uFFFD");
}

TEST(PipeRecords, TextWithoutNulEndsWithItsField)
{
    const stSEND st = stRecord({{8, std::string(784, 'A')}}); // 0x4141 as a unit
    EXPECT_EQ(stReadAnsi(st).csName, std::wstring(261, L'A'));
    EXPECT_EQ(stReadAnsi(st).csPath, std::wstring(261, L'A'));
    EXPECT_EQ(stReadUTF16(st).csName, std::wstring(129, L'\u4141'));
    EXPECT_EQ(stReadUTF16(st).csPath, std::wstring(262, L'\u4141'));
}

TEST(PipeRecords, ReplyIsCutAtACharacterAndAlwaysEnds)
{
    const struct
    {
        std::string csText;
        std::string csReply;
    } tCases[] = {
        {"", ""},
        {"UNKNOWN", "UNKNOWN"},
        {std::string(500, 'x'), std::string(500, 'x')},
        {std::string(501, 'x'), std::string(500, 'x')},
        {std::string(498, 'x') + "\xe2\x82\xac", std::string(498, 'x')},
        {std::string(497, 'x') + "\xe2\x82\xac!", std::string(497, 'x') + "\xe2\x82\xac"},
    };
    for (const auto& st : tCases) {
        stRET stReturn;
        std::memset(&stReturn, 'R', sizeof stReturn); // what an earlier reply left
        WriteReply(st.csText, &stReturn);
        const std::string csBytes(reinterpret_cast<const char*>(&stReturn), sizeof stReturn);
        EXPECT_EQ(csBytes, st.csReply + std::string(501 - st.csReply.size(), '\0'));
    }
}
