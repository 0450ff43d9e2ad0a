#pragma once

#include "config/WinApi.h"
#include "ProfileModel.h"

#include <array>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>

/// Any bytes, read as a profile file and a series of operations on it, which the store and the model carry
/// out side by side. The ordinary test feeds it seeded noise, the fuzzer whatever leads into new code.
class CProfileProgram
{
public:
    CProfileProgram(const std::uint8_t* pBytes, std::size_t nBytes, const std::string& csPath)
        : m_pNext(pBytes), m_pEnd(pBytes + nBytes), m_csPath(csPath), m_csWidePath(csFromUTF8(csPath))
    {}

    /// What went apart first; empty when nothing did.
    std::string csRun()
    {
        std::filesystem::remove(m_csPath);
        const unsigned int nForm = nNext();
        if (nForm % 8 != 0) {
            m_clModel.csFile = csContent((nForm & 8) != 0);
            std::ofstream(m_csPath, std::ios::binary) << *m_clModel.csFile;
        }
        std::string csDifference;
        for (int n = 0; n < 12 && csDifference.empty(); ++n) {
            csDifference = csStep();
        }
        return csDifference;
    }

private:
    unsigned int nNext() { return m_pNext == m_pEnd ? 0 : *m_pNext++; }

    std::string csContent(bool bUnicode)
    {
        using namespace std::string_view_literals;
        static constexpr auto s_tPieces =
            std::to_array<std::string_view>({"\n",        "\n",         "\r\n",
                                             "[INIT]",    "[init]x",    "[",
                                             "]",         "[Other]\n",  "[Other]\r\n",
                                             " ",         "\t",         "=",
                                             " = ",       "Name",       "NAME",
                                             "Name=",     "N",          ":",
                                             ":Name=c\n", "x",          "42",
                                             "-7 z",      "\r",         "\v",
                                             "[INIT]\n",  "\xE9",       "\x80",
                                             ";",         "\"",         "Name = v",
                                             " Name=i\n", "é = ",       "0x1F",
                                             "Name\n",    "[INIT]\r\n", "wwwwwwwwwwwwwwwwwwwwwwww",
                                             "\0"sv,      "Name \r= ",  "99999999999999999999",
                                             "\xFF",      "\xFE\xFF"});
        std::string csBytes = bUnicode ? "\xFF\xFE" : "";
        for (unsigned int n = nNext() % 40; n > 0; --n) {
            const unsigned int nPiece = nNext();
            if (nPiece >= 240) {
                csBytes += static_cast<char>(nNext()); // anything, at odd places too
                continue;
            }
            for (const char c : s_tPieces[nPiece % s_tPieces.size()]) {
                csBytes += c;
                csBytes += bUnicode ? std::string(1, '\0') : "";
            }
        }
        return csBytes;
    }

    const wchar_t* pszName()
    {
        static constexpr const wchar_t* s_tNames[] = {L"INIT", L"init", L"Other", L"Name",   L"name",
                                                      L"N",    L"x",    L"\xE9",  L"[",      L"",
                                                      L"A=B",  L"42",   nullptr,  L"\x1F600"};
        return s_tNames[nNext() % std::size(s_tNames)];
    }

    const wchar_t* pszValue()
    {
        static const std::wstring s_csLong(700, L'L');
        static const wchar_t* const s_tValues[] = {
            L"",        L"v",    L" y ",    L"[INIT]",       s_csLong.c_str(), L"\x20AC", L"12ab",
            L"\x1F600", nullptr, L"\xD83D", L"\x10A\x20D x", L"two\nlines",    L"-"};
        return s_tValues[nNext() % std::size(s_tValues)];
    }

    std::string csStep()
    {
        const unsigned int nOperation = nNext();
        const wchar_t* pszSection = pszName();
        const wchar_t* pszKey = pszName();
        if (nOperation % 3 == 0) {
            return csCompareRead(pszSection, pszKey);
        }
        if (nOperation % 3 == 1) {
            const int nExpected = m_clModel.nRead(pszSection, pszKey, -5);
            const int nActual = GetPrivateProfileInt(pszSection, pszKey, -5, m_csWidePath.c_str());
            return nExpected == nActual
                       ? ""
                       : "number " + std::to_string(nActual) + " for " + std::to_string(nExpected);
        }
        return pszSection == nullptr ? "" : csCompareWrite(pszSection, pszKey, pszValue());
    }

    std::string csCompareRead(const wchar_t* pszSection, const wchar_t* pszKey)
    {
        static constexpr unsigned int s_tSizes[] = {200, 0, 1, 2, 5, 1000};
        const unsigned int nSize = s_tSizes[nNext() % std::size(s_tSizes)];
        const wchar_t* pszDefault = pszValue();
        const std::wstring csUntouched(1001, L'#');
        std::wstring csBuffer = csUntouched;
        const unsigned int nCount = GetPrivateProfileString(pszSection, pszKey, pszDefault, csBuffer.data(),
                                                            nSize, m_csWidePath.c_str());
        const auto csExpected = m_clModel.csRead(pszSection, pszKey, pszDefault, nSize);
        const std::wstring csText = csExpected ? *csExpected + L'\0' : L"";
        if (nCount != (csExpected ? csExpected->size() : 0)) {
            return "count " + std::to_string(nCount) + " for \"" + csToUTF8(csText) + "\"";
        }
        return csBuffer == csText + csUntouched.substr(csText.size()) ? ""
                                                                      : "text \"" + csToUTF8(csBuffer) + "\"";
    }

    std::string csCompareWrite(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
    {
        m_clModel.Write(pszSection, pszKey, pszValue);
        if (WritePrivateProfileString(pszSection, pszKey, pszValue, m_csWidePath.c_str()) == 0) {
            return "write failed";
        }
        std::ostringstream clBytes;
        clBytes << std::ifstream(m_csPath, std::ios::binary).rdbuf();
        return clBytes.str() == *m_clModel.csFile
                   ? ""
                   : "file \"" + clBytes.str() + "\" for \"" + *m_clModel.csFile + "\"";
    }

    const std::uint8_t* m_pNext;
    const std::uint8_t* m_pEnd;
    std::string m_csPath;
    std::wstring m_csWidePath;
    CProfileModel m_clModel;
};
