#pragma once

#include <string>
#include <string_view>
#include <sys/types.h>

/// A directory of its own below the system's temporary directory, removed with its content at the end. Paths
/// given to the members are relative to it.
class CTempDir
{
public:
    CTempDir();
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;
    ~CTempDir();

    /// Full path of an entry, without an ending slash; of the directory itself for an empty name.
    std::string csPath(std::string_view csName = {}) const;
    std::wstring csWidePath(std::string_view csName = {}) const;

    /// Creates or replaces a file, with missing parents; throws when the system refuses. Returns its full
    /// path.
    std::string csWrite(std::string_view csName, std::string_view csBytes, mode_t nMode = 0644) const;
    /// Whole content; throws when it cannot be read.
    std::string csRead(std::string_view csName) const;
    /// Creates a directory with missing parents.
    std::string csMakeDirectory(std::string_view csName) const;
    bool bExists(std::string_view csName) const;

private:
    std::string m_csPath;
};
