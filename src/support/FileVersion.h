#pragma once

#include <map>
#include <string>

/// Version entries of an executable file, read without running it. They are in one ELF note: owner "Velmo",
/// type 1, content a sequence of "key=value" texts, each ended by a NUL byte. A file that is not ELF (64-bit
/// little-endian), is truncated or has wrong sizes in its headers has no entries.
class CFileVersion
{
public:
    /// Reads the entries; true when the file has a version note.
    bool bLoad(const std::wstring& csPath);
    /// Value of an entry. Callers ask by the path that Windows resources have, of which only the last
    /// element, the key, counts ("\StringFileInfo\000004E4\FileVersion"). False when there is no such entry.
    bool bGetStringValue(const std::wstring& csEntry, std::wstring* pcsValue) const;

private:
    std::map<std::wstring, std::wstring> m_tEntries;
};
