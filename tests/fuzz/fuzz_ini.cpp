// Any bytes as a settings file: whatever it holds, a read ends within its buffer, and a write leaves its
// line.

#include "config/WinApi.h"
#include "support/Conversion.h"
#include "Target.h"
#include "tools/TempDir.h"

#include <cstdint>
#include <string>

namespace {
/// The buffer's last part must stay as it was.
void Read(const std::wstring& csFile, const wchar_t* pszSection, const wchar_t* pszKey, unsigned int nSize)
{
    std::wstring csBuffer(101, L'#');
    const std::size_t nCount =
        GetPrivateProfileString(pszSection, pszKey, L"none", csBuffer.data(), nSize, csFile.c_str());
    const std::size_t nUsed = nSize == 0 ? 0 : nCount + 1;
    Require(nUsed <= nSize && (nSize == 0 || csBuffer[nCount] == L'\0'));
    Require(csBuffer.find_first_not_of(L'#', nUsed) == csBuffer.npos);
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    static const CTempDir s_clDirectory;
    const std::string csBefore(csInput(pBytes, nBytes));
    const std::wstring csFile = csFromUTF8(s_clDirectory.csWrite("fuzz.ini", csBefore));
    for (const unsigned int nSize : {0u, 1u, 5u, 100u}) {
        Read(csFile, L"INIT", L"Name", nSize);
        Read(csFile, L"INIT", nullptr, nSize);
        Read(csFile, nullptr, nullptr, nSize);
    }
    Require(WritePrivateProfileString(L"INIT", L"Name", L"new", csFile.c_str()) != 0);
    const bool bUnicode = csBefore.starts_with("\xFF\xFE");
    const std::wstring csLine = L"Name = new\n";
    const std::string csAfter = s_clDirectory.csRead("fuzz.ini");
    Require(csAfter.find(csNarrow(csLine, CP_SYSTEM)) != csAfter.npos || bUnicode);
    Require(csAfter.find(csToUTF16(csLine)) != csAfter.npos || !bUnicode);
    Require(WritePrivateProfileString(L"INIT", L"Name", nullptr, csFile.c_str()) != 0);
    // Behind a last line without its end the new header is found by nobody, and the key stays; intended.
    Require(s_clDirectory.csRead("fuzz.ini").size() <= csAfter.size());
    return 0;
}
