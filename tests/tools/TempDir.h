#pragma once

#include "support/Conversion.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <system_error>

/// A directory of its own below the system's temporary directory, removed with its content at the end. Paths
/// given to the members are relative to it. Failures of the file system are thrown.
class CTempDir
{
public:
    CTempDir()
    {
        std::string csTemplate = (std::filesystem::temp_directory_path() / "velmo-test-XXXXXX").string();
        if (::mkdtemp(csTemplate.data()) == nullptr) {
            throw std::system_error(errno, std::generic_category(), csTemplate);
        }
        m_csPath = std::filesystem::canonical(csTemplate).string();
    }
    CTempDir(const CTempDir&) = delete;
    CTempDir& operator=(const CTempDir&) = delete;
    ~CTempDir()
    {
        std::error_code clIgnored;
        std::filesystem::remove_all(m_csPath, clIgnored);
    }

    /// Full path of an entry, without a trailing slash; of the directory itself for an empty name.
    std::string csPath(std::string_view csName = {}) const
    {
        return csName.empty() ? m_csPath : m_csPath + "/" + std::string(csName);
    }
    std::wstring csWidePath(std::string_view csName = {}) const { return csFromUTF8(csPath(csName)); }

    /// Creates or replaces a file, with missing parents. Returns its full path.
    std::string csWrite(std::string_view csName, std::string_view csBytes, mode_t nMode = 0644) const
    {
        const std::filesystem::path clFile = csPath(csName);
        std::filesystem::create_directories(clFile.parent_path());
        std::ofstream(clFile, std::ios::binary) << csBytes;
        std::filesystem::permissions(clFile, std::filesystem::perms(nMode));
        return clFile.string();
    }
    /// Whole content; empty when there is no such file.
    std::string csRead(std::string_view csName) const
    {
        std::ifstream clStream(csPath(csName), std::ios::binary);
        std::ostringstream clBytes; // in blocks: one by one they take minutes under an emulator
        clBytes << clStream.rdbuf();
        return clBytes.str();
    }
    /// Creates a directory with missing parents.
    std::string csMakeDirectory(std::string_view csName) const
    {
        std::filesystem::create_directories(csPath(csName));
        return csPath(csName);
    }
    bool bExists(std::string_view csName) const
    {
        std::error_code clIgnored;
        return std::filesystem::exists(std::filesystem::symlink_status(csPath(csName), clIgnored));
    }

private:
    std::string m_csPath;
};
