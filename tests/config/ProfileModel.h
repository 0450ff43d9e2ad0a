#pragma once

#include "support/Conversion.h"

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

/// What the profile-file store must do, told a second time from its rules alone: the file is a list of lines
/// in memory, and nothing is done cleverly. A line is a text of 16-bit units, whatever the encoding.
class CProfileModel
{
public:
    std::optional<std::string> csFile; ///< content; none: there is no file

    /// Text that the buffer must hold afterwards; none: it must be untouched.
    std::optional<std::wstring> csRead(const wchar_t* pszSection, const wchar_t* pszKey,
                                       const wchar_t* pszDefault, unsigned int nSize) const
    {
        std::optional<std::wstring> csText;
        if (csFile) {
            const STContent stContent(*csFile);
            csText = stContent.csFind(pszSection ? pszSection : L"", pszKey);
            if (!csText && !pszDefault) {
                csText = L"";
            }
        }
        if (!csText && pszDefault) {
            csText = pszDefault;
        }
        if (nSize == 0 || !csText) {
            return std::nullopt;
        }
        return csText->substr(0, nSize - 1);
    }

    int nRead(const wchar_t* pszSection, const wchar_t* pszKey, int nDefault) const
    {
        const std::wstring csNumber = *csRead(pszSection, pszKey, std::to_wstring(nDefault).c_str(), 20);
        return static_cast<int>(std::wcstol(csNumber.c_str(), nullptr, 10));
    }

    void Write(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
    {
        STContent stContent(csFile.value_or(""));
        stContent.Edit(pszSection, pszKey, pszValue);
        csFile = stContent.csJoined();
    }

private:
    using TLine = std::u16string;

    struct STContent
    {
        bool bUnicode;
        std::vector<TLine> tLines; // with their line ends; only the last may have none
        std::string csOdd;         // what is left of a file that ends within a unit

        explicit STContent(const std::string& csBytes) : bUnicode(csBytes.substr(0, 2) == "\xFF\xFE")
        {
            const std::size_t nWidth = bUnicode ? 2 : 1;
            bool bNewLine = true;
            std::size_t n = bUnicode ? 2 : 0;
            for (; n + nWidth <= csBytes.size(); n += nWidth) {
                const auto nByte = [&](std::size_t nAt) { return static_cast<unsigned char>(csBytes[nAt]); };
                const auto c = static_cast<char16_t>(bUnicode ? nByte(n) + 256 * nByte(n + 1) : nByte(n));
                if (bNewLine) {
                    tLines.emplace_back();
                }
                tLines.back() += c;
                bNewLine = c == u'\n';
            }
            csOdd = csBytes.substr(n);
        }

        std::string csJoined() const
        {
            std::string csBytes = bUnicode ? "\xFF\xFE" : "";
            for (const TLine& csLine : tLines) {
                for (const char16_t c : csLine) {
                    csBytes += static_cast<char>(c & 0xFF);
                    if (bUnicode) {
                        csBytes += static_cast<char>(c >> 8);
                    }
                }
            }
            return csBytes + csOdd;
        }

        TLine csUnits(const std::wstring& cs) const
        {
            TLine csLine;
            if (!bUnicode) {
                for (const char c : csNarrow(cs, CP_SYSTEM)) {
                    csLine += static_cast<unsigned char>(c);
                }
                return csLine;
            }
            for (const wchar_t c : cs) {
                const auto n = static_cast<unsigned int>(c);
                if (n >= 0x10000) {
                    csLine += static_cast<char16_t>(0xD800 + (n - 0x10000) / 0x400);
                    csLine += static_cast<char16_t>(0xDC00 + (n - 0x10000) % 0x400);
                } else {
                    csLine += static_cast<char16_t>(n);
                }
            }
            return csLine;
        }

        std::wstring csText(const TLine& csLine) const
        {
            const std::wstring csUnitByUnit(csLine.begin(), csLine.end());
            return bUnicode ? csUnitByUnit : csWide(std::string(csLine.begin(), csLine.end()), CP_SYSTEM);
        }

        static TLine csLower(TLine cs)
        {
            for (char16_t& c : cs) {
                c = c >= u'A' && c <= u'Z' ? static_cast<char16_t>(c + 32) : c;
            }
            return cs;
        }

        static bool bHeader(const TLine& csLine, const TLine& csSection)
        {
            return csLower(csLine).starts_with(u"[" + csLower(csSection) + u"]");
        }

        static bool bKey(const TLine& csLine, const TLine& csKey)
        {
            const TLine cs = csLower(csLine);
            const TLine csName = csLower(csKey);
            return cs.starts_with(csName + u"=") || cs.starts_with(csName + u" ") ||
                   cs.starts_with(csName + u"\t");
        }

        /// The lines as the reader sees them: without leading white space and what follows a NUL.
        std::vector<TLine> tSeen() const
        {
            std::vector<TLine> tResult;
            for (TLine cs : tLines) {
                cs = cs.substr(0, cs.find(u'\0'));
                tResult.push_back(cs.erase(0, cs.find_first_not_of(u" \t\n\v\f\r")));
            }
            return tResult;
        }

        std::optional<std::wstring> csFind(const std::wstring& csSection, const wchar_t* pszKey) const
        {
            const TLine csHeader = csUnits(csSection);
            TLine csList;
            bool bInside = false;
            for (const TLine& cs : tSeen()) {
                const bool bAnyHeader = cs.starts_with(u"[") && cs.find(u']') != TLine::npos;
                if (csSection.empty()) {
                    csList += bAnyHeader ? cs.substr(1, cs.find(u']') - 1) + u"\r\n" : u"";
                } else if (!bInside) {
                    bInside = bHeader(cs, csHeader);
                } else if (bAnyHeader) {
                    break;
                } else if (cs.starts_with(u":") || cs.find(u'=') == TLine::npos) {
                    continue;
                } else if (!pszKey) {
                    const TLine csName = cs.substr(0, cs.find(u'='));
                    csList += csName.substr(0, csName.find_last_not_of(u" \t") + 1) + u"\r\n";
                } else if (const TLine csKey = csUnits(pszKey);
                           bKey(cs, csKey) && cs.find(u'=', csKey.size()) != TLine::npos) {
                    return csText(csValue(cs, csKey.size()));
                }
            }
            return csList.empty() ? std::nullopt : std::optional(csText(csList));
        }

        static TLine csValue(const TLine& cs, std::size_t nAfterKey)
        {
            const std::size_t nEqual = cs.find(u'=', nAfterKey);
            const std::size_t nEnd = std::min(cs.find_first_of(u"\r\n"), cs.size());
            const TLine csRest = nEqual < nEnd ? cs.substr(nEqual + 1, nEnd - nEqual - 1) : u"";
            return csRest.substr(std::min(csRest.find_first_not_of(u" \t"), csRest.size()));
        }

        void Edit(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
        {
            const TLine csSection = csUnits(pszSection);
            const TLine csKey = csUnits(pszKey ? pszKey : L"");
            const bool bSet = pszKey && pszValue;
            const TLine csNew = bSet ? csKey + u" = " + csUnits(pszValue) + u"\n" : u"";
            auto it = std::find_if(tLines.begin(), tLines.end(),
                                   [&](const TLine& cs) { return bHeader(cs, csSection); });
            if (it == tLines.end()) {
                if (bSet) {
                    tLines.push_back(u"[" + csSection + u"]\n" + csNew);
                }
                return;
            }
            if (!pszKey) {
                tLines.erase(
                    it, std::find_if(it + 1, tLines.end(), [](const TLine& cs) { return cs[0] == u'['; }));
                return;
            }
            for (++it; it != tLines.end(); ++it) {
                if (bKey(*it, csKey)) {
                    *it = csNew;
                    return;
                }
                if (TLine(u"\r\n[").find((*it)[0]) != TLine::npos) {
                    break;
                }
            }
            tLines.insert(it, csNew);
        }
    };
};
