#include "tools/TempDir.h"

#include "support/Conversion.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <sys/stat.h>
#include <system_error>

namespace fs = std::filesystem;

CTempDir::CTempDir()
{
    std::string csTemplate = (fs::temp_directory_path() / "velmo-test-XXXXXX").string();
    if (::mkdtemp(csTemplate.data()) == nullptr) {
        throw std::system_error(errno, std::generic_category(), csTemplate);
    }
    m_csPath = fs::canonical(csTemplate).string();
}

CTempDir::~CTempDir()
{
    std::error_code clIgnored;
    fs::remove_all(m_csPath, clIgnored);
}

std::string CTempDir::csPath(std::string_view csName) const
{
    return csName.empty() ? m_csPath : m_csPath + "/" + std::string(csName);
}

std::wstring CTempDir::csWidePath(std::string_view csName) const
{
    return csFromUTF8(csPath(csName));
}

std::string CTempDir::csWrite(std::string_view csName, std::string_view csBytes, mode_t nMode) const
{
    std::string csFull = csPath(csName);
    fs::create_directories(fs::path(csFull).parent_path());
    std::ofstream clFile(csFull, std::ios::binary | std::ios::trunc);
    clFile.write(csBytes.data(), static_cast<std::streamsize>(csBytes.size()));
    clFile.close();
    if (!clFile || ::chmod(csFull.c_str(), nMode) != 0) {
        throw std::runtime_error("cannot write " + csFull);
    }
    return csFull;
}

std::string CTempDir::csRead(std::string_view csName) const
{
    std::ifstream clFile(csPath(csName), std::ios::binary);
    if (!clFile) {
        throw std::runtime_error("cannot read " + csPath(csName));
    }
    return {std::istreambuf_iterator<char>(clFile), std::istreambuf_iterator<char>()};
}

std::string CTempDir::csMakeDirectory(std::string_view csName) const
{
    fs::create_directories(csPath(csName));
    return csPath(csName);
}

bool CTempDir::bExists(std::string_view csName) const
{
    std::error_code clIgnored;
    return fs::exists(fs::symlink_status(csPath(csName), clIgnored));
}
