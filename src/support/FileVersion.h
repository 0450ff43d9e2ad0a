#pragma once

#include <map>
#include <string>

/// Version entries of an executable file, read without running it. An executable carries them as one ELF
/// note: owner "Velmo", type 1, descriptor a sequence of "key=value" texts, each ended by a NUL byte. A file
/// that is not ELF (64-bit little-endian), is truncated or lies about its sizes simply has no entries.
class CFileVersion
{
public:
    /// Reads the entries; true when the file carries a version note.
    bool bLoad(const std::wstring& csPath);
    /// Value of an entry by its classic path, whose last element is the key
    /// ("\StringFileInfo\000004E4\FileVersion").
    bool bGetStringValue(const std::wstring& csEntry, std::wstring* pcsValue) const;

private:
    std::map<std::wstring, std::wstring> m_tEntries;
};
