#pragma once

#include "config/WinApi.h"
#include "support/Conversion.h"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <string_view>

/// Any bytes, read as a profile file and a series of operations on it. Whatever they are, a read ends within
/// its buffer, and the line that a write is to leave is in the file. The ordinary test feeds it seeded noise,
/// the fuzzer whatever leads into new code.
class CProfileProgram
{
public:
    CProfileProgram(const std::uint8_t* pBytes, std::size_t nBytes, const std::string& csPath)
        : m_pNext(pBytes), m_pEnd(pBytes + nBytes), m_csPath(csPath), m_csWidePath(csFromUTF8(csPath))
    {}

    /// What went wrong first; empty when nothing did.
    std::string csRun()
    {
        m_bUnicode = nNext() % 2 != 0;
        std::ofstream(m_csPath, std::ios::binary) << csContent();
        std::string csFault;
        for (int n = 0; n < 12 && csFault.empty(); ++n) {
            csFault = nNext() % 2 == 0 ? csRead() : csWrite();
        }
        return csFault;
    }

private:
    unsigned int nNext() { return m_pNext == m_pEnd ? 0 : *m_pNext++; }

    std::string csContent()
    {
        static constexpr std::string_view s_tPieces[] = {
            "\n",   "\r\n",     "[INIT]\n", "[INIT]", "[",  "]",  "[Other]\n", "=",      " = ",
            "Name", "Name=v\n", ":",        " ",      "\t", "\r", "\x80",      {"\0", 1}};
        std::string csText;
        for (unsigned int n = nNext() % 40; n > 0; --n) {
            csText += s_tPieces[nNext() % std::size(s_tPieces)];
        }
        const std::string csOdd = nNext() % 8 == 0 ? "[" : ""; // a file may end within a unit
        return (m_bUnicode ? "\xFF\xFE" + csToUTF16(csWide(csText, CP_SYSTEM)) : csText) + csOdd;
    }

    const wchar_t* pszName()
    {
        static constexpr const wchar_t* s_tNames[] = {L"INIT", L"Name", L"name", L"N", L"[", L"", L"A=B"};
        return s_tNames[nNext() % std::size(s_tNames)];
    }

    std::string csRead()
    {
        static constexpr unsigned int s_tSizes[] = {0, 1, 2, 5, 100};
        const unsigned int nSize = s_tSizes[nNext() % std::size(s_tSizes)];
        const wchar_t* pszSection = pszName();
        const wchar_t* pszKey = nNext() % 4 == 0 ? nullptr : pszName();
        std::wstring csBuffer(101, L'#');
        const std::size_t nCount = GetPrivateProfileString(pszSection, pszKey, L"none", csBuffer.data(),
                                                           nSize, m_csWidePath.c_str());
        const bool bEnded = nSize == 0 ? nCount == 0 : nCount < nSize && csBuffer[nCount] == L'\0';
        const std::size_t nBehind = nSize == 0 ? 0 : nCount + 1;
        return bEnded && csBuffer.find_first_not_of(L'#', nBehind) == csBuffer.npos ? "" : "a wrong buffer";
    }

    std::string csWrite()
    {
        static constexpr const wchar_t* s_tValues[] = {L"", L"v", L" y ", L"[INIT]", L"\x20AC", nullptr};
        const wchar_t* pszKey = pszName();
        const wchar_t* pszValue = s_tValues[nNext() % std::size(s_tValues)];
        if (WritePrivateProfileString(pszName(), pszKey, pszValue, m_csWidePath.c_str()) == 0) {
            return "a write that failed";
        }
        std::ostringstream clBytes;
        clBytes << std::ifstream(m_csPath, std::ios::binary).rdbuf();
        const std::wstring csLine =
            pszValue == nullptr ? L"" : pszKey + (L" = " + std::wstring(pszValue)) + L"\n";
        const std::string csBytes = m_bUnicode ? csToUTF16(csLine) : csNarrow(csLine, CP_SYSTEM);
        return clBytes.str().find(csBytes) != std::string::npos ? "" : "a line that was not written";
    }

    const std::uint8_t* m_pNext;
    const std::uint8_t* m_pEnd;
    std::string m_csPath;
    std::wstring m_csWidePath;
    bool m_bUnicode = false;
};
