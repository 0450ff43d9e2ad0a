#include "config/WinApi.h"

#include "config/ProfileEngine.h"
#include "support/Conversion.h"
#include "support/RateLimit.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cwchar>
#include <new>
#include <optional>
#include <pwd.h>
#include <string>
#include <unistd.h>
#include <vector>

namespace {
constexpr std::size_t s_nMaxPath = 260;   ///< characters of a path; the rest is cut off
constexpr unsigned int s_nIntBuffer = 20; ///< characters read of a number, terminator included

/// Text in the units of one encoding. In UTF-16 a character beyond U+FFFF becomes two units. Lone surrogates
/// stay unchanged: the reader makes one character of each unit, so they may be the halves of such a pair.
template <class TUnit>
std::basic_string<TUnit> csUnits(std::wstring_view csText)
{
    if constexpr (sizeof(TUnit) == 1) {
        return csNarrow(csText, CP_SYSTEM);
    } else {
        std::u16string csResult;
        for (const wchar_t c : csText) {
            // Above U+10FFFF is no character: the replacement character stands for it.
            const auto nChar = static_cast<char32_t>(c) > 0x10FFFF ? 0xFFFD : static_cast<char32_t>(c);
            if (nChar > 0xFFFF) {
                csResult += static_cast<char16_t>(0xD800 + ((nChar - 0x10000) >> 10));
            }
            csResult += static_cast<char16_t>(nChar > 0xFFFF ? 0xDC00 + (nChar & 0x3FF) : nChar);
        }
        return csResult;
    }
}

std::wstring csFromUnits(std::string_view csText)
{
    return csWide(csText, CP_SYSTEM);
}

std::wstring csFromUnits(std::u16string_view csText)
{
    return {csText.begin(), csText.end()};
}

template <class TUnit>
std::optional<std::basic_string<TUnit>> csOptionalUnits(const wchar_t* pszText)
{
    return pszText == nullptr ? std::nullopt : std::optional(csUnits<TUnit>(pszText));
}

/// Searches a file of one encoding.
template <class TUnit>
std::optional<std::wstring> csSearch(CProfileFile& clFile, const wchar_t* pszSection, const wchar_t* pszKey)
{
    const auto csSection = csUnits<TUnit>(pszSection == nullptr ? L"" : pszSection);
    const auto csKey = csOptionalUnits<TUnit>(pszKey);
    const auto csFound = __GetPrivateProfileStringInterne<TUnit>(clFile, csSection, csKey);
    return csFound.has_value() ? std::optional(csFromUnits(*csFound)) : std::nullopt;
}

/// Changes a file of one encoding.
template <class TUnit>
bool bEdit(CProfileFile& clFile, const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
{
    const auto csSection = csUnits<TUnit>(pszSection);
    const auto csKey = csOptionalUnits<TUnit>(pszKey);
    const auto csValue = csOptionalUnits<TUnit>(pszValue);
    return __WritePrivateProfileString<TUnit>(clFile, csSection, csKey, csValue);
}

/// Copies a text into a buffer of nSize characters, cut and terminated. Returns the number of characters
/// before the terminator.
template <class TCar>
unsigned int nCopyCut(std::basic_string_view<TCar> csText, TCar* pszBuffer, unsigned int nSize)
{
    if (nSize == 0 || pszBuffer == nullptr) {
        return 0;
    }
    const std::size_t nLength = csText.copy(pszBuffer, nSize - 1);
    pszBuffer[nLength] = TCar{};
    return static_cast<unsigned int>(nLength);
}

/// The real user's home directory by the password database, not by $HOME; none without an entry.
std::optional<std::wstring> csHomeDirectory()
{
    passwd stEntry{};
    passwd* pstFound = nullptr;
    std::vector<char> tBuffer(1024); // enough for most entries

    while (::getpwuid_r(::getuid(), &stEntry, tBuffer.data(), tBuffer.size(), &pstFound) == ERANGE) {
        tBuffer.resize(2 * tBuffer.size());
    }

    return pstFound == nullptr ? std::nullopt : std::optional(csFromUTF8(pstFound->pw_dir));
}

/// Turns a file name, as clients give it, into a path; WinApi.h says how.
std::wstring __PrivateProfilePatchName(const wchar_t* pszFile)
{
    std::wstring csPath(pszFile);
    if (csPath.find_first_of(L"\\/") == std::wstring::npos) {
        if (const auto csHome = csHomeDirectory()) {
            csPath = *csHome + L"/" + csPath;
        }
    }

    std::ranges::replace(csPath, L'\\', L'/');
    return csPath.substr(0, s_nMaxPath);
}

/// Path of the per-user file; false for a user without a home.
bool bGetNVSCONFPath(std::wstring* pcsPath)
{
    const auto csHome = csHomeDirectory();
    *pcsPath = (csHome.value_or(L"") + L"/.NVS.conf").substr(0, s_nMaxPath);
    return csHome.has_value();
}

/// The per-user file's path, kept in *pcsPath; null when the user has none.
const wchar_t* pszUserFile(std::wstring* pcsPath)
{
    return bGetNVSCONFPath(pcsPath) ? pcsPath->c_str() : nullptr;
}

/// As pszUserFile, but out of memory counts as no file: reading never fails.
const wchar_t* pszUserFileToRead(std::wstring* pcsPath) noexcept
{
    try {
        return pszUserFile(pcsPath);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

/// The function that SetTooLargeReport has set, and the limit on how often it is called.
struct STTooLarge
{
    CTooLargeReport fnReport;
    CRateLimit clLimit;
};
STTooLarge& stTooLarge()
{
    static STTooLarge s_stTooLarge;
    return s_stTooLarge;
}

void ReportTooLarge(const std::wstring& csFile)
{
    if (STTooLarge& st = stTooLarge(); st.fnReport && st.clLimit.bDue(csFile)) {
        st.fnReport(csFile);
    }
}

/// What a file says about a key; no text when the key is absent.
struct STRead
{
    bool bOpened = false;
    std::optional<std::wstring> csFound;
};

/// Reads a key in one pass over the file (null: no file). A file that is missing, unreadable or too large
/// looks like an absent key, and so does being out of memory.
STRead stRead(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszFile) noexcept
{
    STRead stResult;
    if (pszFile == nullptr) {
        return stResult;
    }

    try {
        const std::wstring csFile = __PrivateProfilePatchName(pszFile);
        CProfileFile clFile;
        stResult.bOpened = clFile.bOpenToRead(csToUTF8(csFile));
        if (stResult.bOpened) {
            stResult.csFound = clFile.bFichierUnicode() ? csSearch<CUnicodeUnit>(clFile, pszSection, pszKey)
                                                        : csSearch<CAnsiUnit>(clFile, pszSection, pszKey);
        } else if (errno == EFBIG) {
            ReportTooLarge(csFile);
        }
    } catch (const std::bad_alloc&) { // reading never fails: the key counts as absent
        stResult.csFound.reset();
    }
    return stResult;
}

/// Copies the text found, else the default. Without both, empties the buffer if there is a file.
template <class TCar>
unsigned int nAnswer(bool bOpened, std::optional<std::basic_string_view<TCar>> csFound,
                     const TCar* pszDefault, TCar* pszBuffer, unsigned int nSize) noexcept
{
    if (csFound.has_value()) {
        return nCopyCut<TCar>(*csFound, pszBuffer, nSize);
    }
    if (pszDefault != nullptr) {
        return nCopyCut<TCar>(pszDefault, pszBuffer, nSize);
    }
    return bOpened ? nCopyCut<TCar>(std::basic_string_view<TCar>(), pszBuffer, nSize) : 0;
}

/// Changes a key in one pass over the file; false with errno.
bool bWrite(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue, const wchar_t* pszFile)
{
    CProfileFile clFile;
    if (!clFile.bOpenToUpdate(csToUTF8(__PrivateProfilePatchName(pszFile)))) {
        return false;
    }

    const bool bDone = clFile.bFichierUnicode() ? bEdit<CUnicodeUnit>(clFile, pszSection, pszKey, pszValue)
                                                : bEdit<CAnsiUnit>(clFile, pszSection, pszKey, pszValue);
    return bDone && clFile.bClose(); // a failed edit closes in the destructor, which keeps errno
}

/// Makes a write: 1, or 0 with errno when it fails (ENOMEM when it throws std::bad_alloc).
template <class TWrite>
int nWithoutThrowing(TWrite Write) noexcept
{
    try {
        return Write() ? 1 : 0;
    } catch (const std::bad_alloc&) {
        errno = ENOMEM;
        return 0;
    }
}

std::optional<std::wstring> csOptionalWide(const char* pszText)
{
    return pszText == nullptr ? std::nullopt : std::optional(csWide(pszText, CP_SYSTEM));
}

const wchar_t* pszOrNull(const std::optional<std::wstring>& csText)
{
    return csText.has_value() ? csText->c_str() : nullptr;
}
} // namespace

void SetTooLargeReport(CTooLargeReport fnReport)
{
    stTooLarge().fnReport = std::move(fnReport);
}

unsigned int GetPrivateProfileStringW(const wchar_t* pszSection, const wchar_t* pszKey,
                                      const wchar_t* pszDefault, wchar_t* pszBuffer, unsigned int nSize,
                                      const wchar_t* pszFile)
{
    const STRead stResult = stRead(pszSection, pszKey, pszFile);
    return nAnswer<wchar_t>(stResult.bOpened, stResult.csFound, pszDefault, pszBuffer, nSize);
}

int GetPrivateProfileInt(const wchar_t* pszSection, const wchar_t* pszKey, int nDefault,
                         const wchar_t* pszFile)
{
    // The default is passed as text, so that one conversion makes the result of either.
    std::array<wchar_t, s_nIntBuffer> szValue{};
    std::array<wchar_t, s_nIntBuffer> szDefault{};
    std::swprintf(szDefault.data(), szDefault.size(), L"%d", nDefault);
    GetPrivateProfileStringW(pszSection, pszKey, szDefault.data(), szValue.data(), s_nIntBuffer, pszFile);
    return static_cast<int>(std::wcstol(szValue.data(), nullptr, 10));
}

int WritePrivateProfileStringW(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue,
                               const wchar_t* pszFile)
{
    if (pszSection == nullptr || pszFile == nullptr) {
        errno = EINVAL;
        return 0;
    }
    return nWithoutThrowing([&] { return bWrite(pszSection, pszKey, pszValue, pszFile); });
}

unsigned int GetPrivateProfileStringA(const char* pszSection, const char* pszKey, const char* pszDefault,
                                      char* pszBuffer, unsigned int nSize, const char* pszFile)
{
    try {
        const auto csSection = csOptionalWide(pszSection);
        const auto csKey = csOptionalWide(pszKey);
        const auto csFile = csOptionalWide(pszFile);
        const STRead stResult = stRead(pszOrNull(csSection), pszOrNull(csKey), pszOrNull(csFile));
        const auto csFound = stResult.csFound.has_value()
                                 ? std::optional(csNarrow(*stResult.csFound, CP_SYSTEM))
                                 : std::nullopt;
        return nAnswer<char>(stResult.bOpened, csFound, pszDefault, pszBuffer, nSize);
    } catch (const std::bad_alloc&) {
        return nAnswer<char>(false, std::nullopt, pszDefault, pszBuffer, nSize);
    }
}

int WritePrivateProfileStringA(const char* pszSection, const char* pszKey, const char* pszValue,
                               const char* pszFile)
{
    return nWithoutThrowing([&] {
        const auto csSection = csOptionalWide(pszSection);
        const auto csKey = csOptionalWide(pszKey);
        const auto csValue = csOptionalWide(pszValue);
        const auto csFile = csOptionalWide(pszFile);
        return WritePrivateProfileStringW(pszOrNull(csSection), pszOrNull(csKey), pszOrNull(csValue),
                                          pszOrNull(csFile)) != 0;
    });
}

unsigned int GetProfileString(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszDefault,
                              wchar_t* pszBuffer, unsigned int nSize)
{
    std::wstring csPath;
    return GetPrivateProfileStringW(pszSection, pszKey, pszDefault, pszBuffer, nSize,
                                    pszUserFileToRead(&csPath));
}

int GetProfileInt(const wchar_t* pszSection, const wchar_t* pszKey, int nDefault)
{
    std::wstring csPath;
    return GetPrivateProfileInt(pszSection, pszKey, nDefault, pszUserFileToRead(&csPath));
}

int WriteProfileString(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue)
{
    return nWithoutThrowing([&] {
        std::wstring csPath;
        const wchar_t* pszFile = pszUserFile(&csPath);
        if (pszFile == nullptr) {
            errno = ENOENT;
            return false;
        }
        return WritePrivateProfileStringW(pszSection, pszKey, pszValue, pszFile) != 0;
    });
}
