#include "velmoctl/Output.h"

#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace {
void AppendRow(const std::vector<STCell>& tRow, const std::vector<std::size_t>& tWidths,
               std::string* pcsTable)
{
    constexpr std::size_t nGap = 2;
    std::size_t nMissing = 0;
    for (std::size_t n = 0; n < tRow.size(); ++n) {
        const std::string csText = csShown(tRow[n].csText);
        pcsTable->append(nMissing, ' ').append(csColoured(csText, tRow[n].eColour));
        nMissing = tWidths[n] - nColumns(csText) + nGap;
    }
    *pcsTable += "\n";
}

/// Also what a terminal might obey is escaped: the output of --json is looked at, too.
std::string csJsonCharacter(wchar_t c)
{
    if (c == L'"' || c == L'\\') {
        return {'\\', static_cast<char>(c)};
    }
    if (!bHarmful(c)) {
        return csToUTF8({&c, 1});
    }
    std::array<char, 8> szEscape{};
    std::snprintf(szEscape.data(), szEscape.size(), "\\u%04x", static_cast<unsigned int>(c) & 0xFFFF);
    return szEscape.data();
}

std::string csEnclosed(char cOpen, const std::vector<std::string>& tParts, char cClose)
{
    std::string cs(1, cOpen);
    for (const std::string& csPart : tParts) {
        cs += (cs.size() > 1 ? ", " : "") + csPart;
    }
    return cs + cClose;
}
} // namespace

std::string csTable(const std::vector<std::string>& tHeader, const std::vector<std::vector<STCell>>& tRows)
{
    std::vector<STCell> tTop;
    std::vector<std::size_t> tWidths;
    for (const std::string& cs : tHeader) {
        tTop.push_back({cs, EColour::BOLD});
        tWidths.push_back(nColumns(cs));
    }
    for (const auto& tRow : tRows) {
        for (std::size_t n = 0; n < tRow.size(); ++n) {
            tWidths[n] = std::max(tWidths[n], nColumns(csShown(tRow[n].csText)));
        }
    }
    std::string csTable;
    AppendRow(tTop, tWidths, &csTable);
    for (const auto& tRow : tRows) {
        AppendRow(tRow, tWidths, &csTable);
    }
    return csTable;
}

std::string csJsonText(std::string_view csText)
{
    std::string cs = "\"";
    for (const wchar_t c : csFromUTF8(csText)) {
        cs += csJsonCharacter(c);
    }
    return cs + "\"";
}

std::string csJsonFlag(bool bFlag)
{
    return bFlag ? "true" : "false";
}

std::string csJsonNumber(const std::string& csText)
{
    constexpr std::size_t nSafeDigits = 15;
    const bool bNumber = !csText.empty() && csText.size() <= nSafeDigits &&
                         csText.find_first_not_of("0123456789") == std::string::npos &&
                         (csText.size() == 1 || csText[0] != '0');
    return bNumber ? csText : csJsonText(csText);
}

std::string csJsonObject(std::initializer_list<std::pair<const char*, std::string>> tMembers)
{
    std::vector<std::string> tParts;
    for (const auto& [pszName, csValue] : tMembers) {
        tParts.push_back(csJsonText(pszName) + ": " + csValue);
    }
    return csEnclosed('{', tParts, '}');
}

std::string csJsonArray(const std::vector<std::string>& tValues)
{
    return csEnclosed('[', tValues, ']');
}
