#pragma once

#include <functional>
#include <string>

/// The profile-file store: single settings in INI files, in the manner of the Windows calls of the same
/// names.
///
/// Every call opens the file, scans it, acts and closes it; nothing is kept between calls. Any thread may
/// call. There is no lock: of two writers at once on one file the later one wins, and a reader may see a file
/// that is half rewritten. docs/settings.md describes the file's syntax.
///
/// A file name with a backslash or a slash is a path: backslashes become slashes, and at most 260 characters
/// count. Any other name means a file in the home directory of the real user, or in the working directory
/// when the password database has no entry for this user. A file that begins with the
/// byte order mark FF FE holds UTF-16 little-endian units, one character each; every other file is in the
/// system code page. A write keeps the encoding, and every byte outside the line that it sets; a new file is
/// in the system code page.
///
/// A file of more than 16 MiB is not read (as if it could not be opened) and not written (EFBIG). Of each
/// line the first 64 KiB are read; a write keeps longer lines byte for byte.

/// Sets the function that the reading thread calls for a file that is too large to be read, at most once a
/// minute for each file. The function may throw std::bad_alloc, which is dropped, and nothing else. Set
/// before any thread reads, and set to an empty one after the last.
using CTooLargeReport = std::function<void(const std::wstring& csFile)>;
void SetTooLargeReport(CTooLargeReport fnReport);

/// Copies a value, cut to nSize - 1 characters and terminated, and returns its length without the terminator.
///
/// The default is copied when the file cannot be read or the key is absent, but not when the value is empty.
/// When that default is null, the result is 0, and the buffer is emptied, or left unchanged if the file could
/// not be opened. Out of memory counts as an absent key or as a missing file: reading never fails and never
/// throws. A null or empty section lists the names of the sections, a null key those of the section's keys,
/// each followed by "\r\n".
unsigned int GetPrivateProfileStringW(const wchar_t* pszSection, const wchar_t* pszKey,
                                      const wchar_t* pszDefault, wchar_t* pszBuffer, unsigned int nSize,
                                      const wchar_t* pszFile);

/// The decimal number at the start of a value, of which 19 characters are read, modulo 2^32 (-1 for a number
/// of 2^63 and more). A value without a number, also an empty one, is 0. The default counts only where
/// GetPrivateProfileStringW would copy it.
int GetPrivateProfileInt(const wchar_t* pszSection, const wchar_t* pszKey, int nDefault,
                         const wchar_t* pszFile);

/// Sets a key, deletes it (value null) or deletes the whole section (key null); to delete what is not there
/// succeeds. The file is created when it does not exist. Nonzero on success, else 0 with errno: the file is
/// unchanged when room to grow or memory was lacking, and may be partly rewritten after any other failure.
/// Neither names nor values are checked: a newline in them ends the line in the file.
int WritePrivateProfileStringW(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue,
                               const wchar_t* pszFile);

/// The same in the system code page, for all texts.
unsigned int GetPrivateProfileStringA(const char* pszSection, const char* pszKey, const char* pszDefault,
                                      char* pszBuffer, unsigned int nSize, const char* pszFile);
int WritePrivateProfileStringA(const char* pszSection, const char* pszKey, const char* pszValue,
                               const char* pszFile);

/// The same for the per-user file ".NVS.conf" in the home directory of the real user. A user without an entry
/// in the password database has no such file: reads give the default, writes fail (ENOENT).
unsigned int GetProfileString(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszDefault,
                              wchar_t* pszBuffer, unsigned int nSize);
int GetProfileInt(const wchar_t* pszSection, const wchar_t* pszKey, int nDefault);
int WriteProfileString(const wchar_t* pszSection, const wchar_t* pszKey, const wchar_t* pszValue);

inline unsigned int GetPrivateProfileString(const wchar_t* pszSection, const wchar_t* pszKey,
                                            const wchar_t* pszDefault, wchar_t* pszBuffer, unsigned int nSize,
                                            const wchar_t* pszFile)
{
    return GetPrivateProfileStringW(pszSection, pszKey, pszDefault, pszBuffer, nSize, pszFile);
}
inline int WritePrivateProfileString(const wchar_t* pszSection, const wchar_t* pszKey,
                                     const wchar_t* pszValue, const wchar_t* pszFile)
{
    return WritePrivateProfileStringW(pszSection, pszKey, pszValue, pszFile);
}
