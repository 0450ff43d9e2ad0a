#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ProtectedDirectories.h"
#include "support/SystemCall.h"
#include "support/WinApi.h"

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <tuple>
#include <vector>

namespace {
using STExtendedStatus = struct statx; // a function has the structure's name

/// What tells one directory from all others: the file and the mount through which it is seen.
struct STPlace
{
    std::uint64_t qwDevice;
    std::uint64_t qwInode;
    std::uint64_t qwMount; ///< 0 where the kernel does not tell

    bool operator==(const STPlace&) const = default;
    /// Bind mounts have the same device: only the mount tells them apart.
    bool bSameMount(const STPlace& stOther) const
    {
        return qwDevice == stOther.qwDevice && qwMount == stOther.qwMount;
    }
};

/// Mount number for kernels whose statx does not tell it.
std::uint64_t qwMountByHandle(int nFd)
{
    file_handle stHandle{}; // no room for the handle itself: the call fails and still gives the mount
    int nMount = 0;
    const bool bTold =
        ::name_to_handle_at(nFd, "", &stHandle, &nMount, AT_EMPTY_PATH) == 0 || errno == EOVERFLOW;
    return bTold ? static_cast<std::uint64_t>(nMount) : 0;
}

/// For old kernels, and for filters that do not know the call.
std::optional<STPlace> stPlaceWithoutStatx(int nFd)
{
    STFileStatus st{};
    if (::fstat(nFd, &st) != 0) {
        return std::nullopt;
    }
    return STPlace{std::uint64_t{::gnu_dev_major(st.st_dev)} << 32 | ::gnu_dev_minor(st.st_dev), st.st_ino,
                   qwMountByHandle(nFd)};
}

/// Of an open directory; none with errno when the system does not tell.
std::optional<STPlace> stPlace(int nFd)
{
    STExtendedStatus st{};
    if (::statx(nFd, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_INO | STATX_MNT_ID, &st) != 0) {
        return errno == ENOSYS || errno == EPERM ? stPlaceWithoutStatx(nFd) : std::nullopt;
    }
    const bool bMount = (st.stx_mask & STATX_MNT_ID) != 0;
    return STPlace{std::uint64_t{st.stx_dev_major} << 32 | st.stx_dev_minor, st.stx_ino,
                   bMount ? st.stx_mnt_id : qwMountByHandle(nFd)};
}

CDescripteur clOpenDirectory(int nParent, const char* pszName)
{
    return CDescripteur(::openat(nParent, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// Opens a resolved path name by name, so that a name that has become a symbolic link since is refused.
CDescripteur clOpenResolved(const std::string& csPath)
{
    CDescripteur clFd(::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    for (std::size_t nStart = 1; clFd.bOpen() && nStart < csPath.size();) {
        const std::size_t nEnd = std::min(csPath.find('/', nStart), csPath.size());
        const std::string csName = csPath.substr(nStart, nEnd - nStart);
        clFd =
            CDescripteur(::openat(clFd.nFd(), csName.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        nStart = nEnd + 1;
    }
    return clFd;
}

/// Names in a directory but "." and ".."; false with errno when it cannot be read.
bool bListNames(int nFd, std::vector<std::string>* ptNames)
{
    CDescripteur clCopy(::openat(nFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const CDirectory pDir(clCopy.bOpen() ? ::fdopendir(clCopy.nFd()) : nullptr);
    if (!pDir) {
        return false;
    }
    std::ignore = clCopy.nRelease(); // the stream closes it
    errno = 0;
    while (const dirent* pstEntry = ::readdir(pDir.get())) {
        const std::string_view csName = pstEntry->d_name;
        if (csName != "." && csName != "..") {
            ptNames->emplace_back(csName);
        }
        errno = 0;
    }
    return errno == 0;
}

/// Empties one directory whatever its depth: one open directory at a time, the way back through "..", and the
/// directories still to do on the heap, so that neither the thread's stack nor its descriptors bound the
/// depth.
class CTreeEraser
{
public:
    explicit CTreeEraser(CXError* pclError) : m_pclError(pclError) {}

    /// Takes the open top directory. True when it is empty afterwards.
    bool bEmpty(CDescripteur clTop, const std::string& csPath)
    {
        const std::optional<STPlace> stTop = stPlace(clTop.nFd());
        if (!stTop) {
            return bFail(m_pclError, L"delete", csFromUTF8(csPath));
        }
        m_clCurrent = std::move(clTop);
        m_tLevels.push_back({csPath, *stTop, {}});
        _DeleteFiles();
        while (!m_bLost && (m_tLevels.size() > 1 || !m_tLevels.back().tDirectories.empty())) {
            if (m_tLevels.back().tDirectories.empty()) {
                _Ascend();
            } else {
                _Descend();
            }
        }
        return !m_bFailed;
    }

private:
    struct STLevel
    {
        std::string csName;
        STPlace stPlace;
        std::vector<std::string> tDirectories; ///< still to be deleted in it
    };

    /// Reports the first obstacle only, by its path.
    void _Failed(const std::string& csName)
    {
        if (!m_bFailed) {
            const int nErrno = errno;
            std::string csPath;
            for (const STLevel& stLevel : m_tLevels) {
                csPath += stLevel.csName + "/";
            }
            errno = nErrno;
            bFail(m_pclError, L"delete", csFromUTF8(csPath + csName));
        }
        m_bFailed = true;
    }

    /// Deletes all in the current directory that is no directory; symbolic links are deleted, not followed.
    void _DeleteFiles()
    {
        std::vector<std::string> tNames;
        if (!bListNames(m_clCurrent.nFd(), &tNames)) {
            _Failed({});
        }
        for (std::string& csName : tNames) {
            if (::unlinkat(m_clCurrent.nFd(), csName.c_str(), 0) == 0) {
                continue;
            }
            if (errno == EISDIR) {
                m_tLevels.back().tDirectories.push_back(std::move(csName));
            } else {
                _Failed(csName);
            }
        }
    }

    void _Descend()
    {
        std::string csName = std::move(m_tLevels.back().tDirectories.back());
        m_tLevels.back().tDirectories.pop_back();
        CDescripteur clBelow = clOpenDirectory(m_clCurrent.nFd(), csName.c_str());
        const std::optional<STPlace> stBelow = clBelow.bOpen() ? stPlace(clBelow.nFd()) : std::nullopt;
        if (!stBelow) {
            _Failed(csName);
            return;
        }
        if (!stBelow->bSameMount(m_tLevels.back().stPlace)) {
            errno = EBUSY;
            _Failed(csName);
            return;
        }
        m_tLevels.push_back({std::move(csName), *stBelow, {}});
        m_clCurrent = std::move(clBelow);
        _DeleteFiles();
    }

    /// Back to the parent, which must still be the directory that was left: someone may have moved the tree.
    void _Ascend()
    {
        CDescripteur clParent = clOpenDirectory(m_clCurrent.nFd(), "..");
        const std::optional<STPlace> stParent = clParent.bOpen() ? stPlace(clParent.nFd()) : std::nullopt;
        if (!stParent || *stParent != m_tLevels[m_tLevels.size() - 2].stPlace) {
            errno = stParent ? ESTALE : errno;
            _Failed({});
            m_bLost = true;
            return;
        }
        const std::string csName = std::move(m_tLevels.back().csName);
        m_tLevels.pop_back();
        m_clCurrent = std::move(clParent);
        if (::unlinkat(m_clCurrent.nFd(), csName.c_str(), AT_REMOVEDIR) != 0) {
            _Failed(csName);
        }
    }

    CXError* m_pclError;
    CDescripteur m_clCurrent;
    std::vector<STLevel> m_tLevels;
    bool m_bFailed = false;
    bool m_bLost = false;
};

/// Names of a path with ".." in them depend on what they follow: such a path is not taken.
bool bHasParentName(const std::string& csPath)
{
    return ("/" + csPath + "/").find("/../") != std::string::npos;
}

std::string csWithoutEndSlashes(std::string csPath)
{
    while (csPath.size() > 1 && csPath.back() == '/') {
        csPath.pop_back();
    }
    return csPath;
}

/// The directory's resolved path; empty with errno when it may not be deleted by its name.
std::string csResolveOwnFolder(const std::wstring& csDirectory)
{
    const std::string csPath = csWithoutEndSlashes(csToUTF8(csDirectory));
    STFileStatus st{};
    if (csPath.empty() || csPath.front() != '/' || csPath.find('\0') != std::string::npos ||
        bHasParentName(csPath)) {
        errno = EPERM;
        return {};
    }
    if (::lstat(csPath.c_str(), &st) != 0) {
        return {};
    }
    const std::unique_ptr<char, decltype(&std::free)> pszReal(::realpath(csPath.c_str(), nullptr),
                                                              &std::free);
    if (!pszReal) {
        return {};
    }
    std::string csReal = pszReal.get();
    const std::string csOwnExecutable = csToUTF8(GetModuleFileNameW(SIZE_MAX));
    if (!S_ISDIR(st.st_mode) || !bOwnFolder(csReal) || csOwnExecutable.starts_with(csReal + "/")) {
        errno = S_ISDIR(st.st_mode) || S_ISLNK(st.st_mode) ? EPERM : ENOTDIR;
        return {};
    }
    return csReal;
}
} // namespace

bool CDiskFile::bDeleteTree(const std::wstring& csDirectory, CXError* pclError)
{
    const std::string csPath = csResolveOwnFolder(csDirectory);
    if (csPath.empty()) {
        return bFail(pclError, L"delete", csDirectory);
    }
    // The parent stays open throughout: the tree's own entry is deleted in it at the end, wherever it may be
    // by then.
    const std::size_t nName = csPath.rfind('/') + 1;
    const std::string csName = csPath.substr(nName);
    const CDescripteur clParent = clOpenResolved(csPath.substr(0, nName - 1));
    CDescripteur clTop = clParent.bOpen() ? clOpenDirectory(clParent.nFd(), csName.c_str()) : CDescripteur();
    const std::optional<STPlace> stParent = clTop.bOpen() ? stPlace(clParent.nFd()) : std::nullopt;
    const std::optional<STPlace> stTop = stParent ? stPlace(clTop.nFd()) : std::nullopt;
    if (!stTop) {
        return bFail(pclError, L"delete", csDirectory);
    }
    if (!stTop->bSameMount(*stParent)) {
        errno = EPERM;
        return bFail(pclError, L"delete", csDirectory);
    }
    if (!CTreeEraser(pclError).bEmpty(std::move(clTop), csPath)) {
        return false;
    }
    return ::unlinkat(clParent.nFd(), csName.c_str(), AT_REMOVEDIR) == 0 ||
           bFail(pclError, L"delete", csDirectory);
}
