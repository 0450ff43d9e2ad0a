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

// Deletes as root in folders whose owners may rename, link and mount while the walk is under way. So once the
// top directory is open, no path is resolved any more: each step goes from one open directory to the next by
// a single name and follows no symbolic link. A step down must stay on the same mount; a step up must lead to
// the directory that the walk came from.

namespace {
using STExtendedStatus = struct statx; // a function has the structure's name

/// Identifies a directory: the file, and the mount through which it is seen.
struct STPlace
{
    std::uint64_t qwDevice;
    std::uint64_t qwInode;
    std::uint64_t qwMount; ///< 0 where the kernel does not report it

    bool operator==(const STPlace&) const = default;
    /// A bind mount has the device of what it shows: only the mount number differs.
    bool bSameMount(const STPlace& stOther) const
    {
        return qwDevice == stOther.qwDevice && qwMount == stOther.qwMount;
    }
};

/// Mount number for kernels whose statx does not report it (before 5.8).
std::uint64_t qwMountByHandle(int nFd)
{
    // There is no room for the handle itself: the call fails with EOVERFLOW and still stores the mount.
    file_handle stHandle{};
    int nMount = 0;
    const bool bStored =
        ::name_to_handle_at(nFd, "", &stHandle, &nMount, AT_EMPTY_PATH) == 0 || errno == EOVERFLOW;
    return bStored ? static_cast<std::uint64_t>(nMount) : 0;
}

/// The place by fstat, for kernels before 4.11 and for system call filters that do not know statx.
std::optional<STPlace> stPlaceWithoutStatx(int nFd)
{
    STFileStatus st{};
    if (::fstat(nFd, &st) != 0) {
        return std::nullopt;
    }
    return STPlace{std::uint64_t{::gnu_dev_major(st.st_dev)} << 32 | ::gnu_dev_minor(st.st_dev), st.st_ino,
                   qwMountByHandle(nFd)};
}

/// The place of an open directory; none with errno when the kernel does not report it.
std::optional<STPlace> stPlaceOf(int nFd)
{
    STExtendedStatus st{};
    if (::statx(nFd, "", AT_EMPTY_PATH | AT_NO_AUTOMOUNT, STATX_INO | STATX_MNT_ID, &st) != 0) {
        return errno == ENOSYS || errno == EPERM ? stPlaceWithoutStatx(nFd) : std::nullopt;
    }

    // qemu's user-mode statx says in the mask that it has stored the mount number, but leaves it 0.
    const bool bMount = (st.stx_mask & STATX_MNT_ID) != 0 && st.stx_mnt_id != 0;
    return STPlace{std::uint64_t{st.stx_dev_major} << 32 | st.stx_dev_minor, st.stx_ino,
                   bMount ? st.stx_mnt_id : qwMountByHandle(nFd)};
}

/// Opens a directory by a single name, which must not be a symbolic link.
CDescripteur clOpenDirectory(int nParent, const char* pszName)
{
    return CDescripteur(::openat(nParent, pszName, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

/// Opens a resolved path name by name: a name that has been replaced by a symbolic link since is refused.
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

/// Lists the names in a directory except "." and ".."; false with errno when it cannot be read.
bool bListNames(int nFd, std::vector<std::string>* ptNames)
{
    // Opened anew: a duplicate of nFd would share its position, and the stream closes what it is given.
    CDescripteur clCopy(::openat(nFd, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const CDirectory pDir(clCopy.bOpen() ? ::fdopendir(clCopy.nFd()) : nullptr);
    if (!pDir) {
        return false;
    }
    std::ignore = clCopy.nRelease(); // the stream closes it

    errno = 0; // only errno tells the end of the directory from a failure
    while (const dirent* pstEntry = ::readdir(pDir.get())) {
        const std::string_view csName = pstEntry->d_name;
        if (csName != "." && csName != "..") {
            ptNames->emplace_back(csName);
        }
        errno = 0;
    }
    return errno == 0;
}

/// Empties one directory of any depth, without recursion. One directory is open at a time, the way back leads
/// through "..", and the names of the directories still to do are on the heap: neither the thread's stack nor
/// the number of descriptors limits the depth.
class CTreeEraser
{
public:
    explicit CTreeEraser(CXError* pclError) : m_pclError(pclError) {}

    /// Takes the open top directory; csPath is its path, for the error. True when it is empty afterwards.
    bool bEraseContents(CDescripteur clTop, const std::string& csPath)
    {
        const std::optional<STPlace> stTop = stPlaceOf(clTop.nFd());
        if (!stTop) {
            return bFail(m_pclError, L"delete", csFromUTF8(csPath));
        }

        m_clCurrent = std::move(clTop);
        m_tLevels.push_back({csPath, *stTop, {}});
        _DeleteFiles();

        // Each directory is taken off its level's list before it is tried. So one that cannot be deleted is
        // tried once and left, and the loop ends.
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
    /// One of the directories from the top down to the current one.
    struct STLevel
    {
        std::string csName;
        STPlace stPlace;
        std::vector<std::string> tDirectories; ///< still to be deleted in it
    };

    /// Notes a failure, and reports the first one with its path and errno. csName is a name in the current
    /// directory; empty for that directory itself.
    void _NoteFailure(const std::string& csName)
    {
        if (!m_bFailed) {
            const int nErrno = errno; // building the path may change it
            std::string csPath;
            for (const STLevel& stLevel : m_tLevels) {
                csPath += stLevel.csName + "/";
            }
            errno = nErrno;
            bFail(m_pclError, L"delete", csFromUTF8(csPath + csName));
        }
        m_bFailed = true;
    }

    /// Deletes everything in the current directory but the directories, which it lists for later. Symbolic
    /// links are deleted, not followed.
    void _DeleteFiles()
    {
        std::vector<std::string> tNames;
        if (!bListNames(m_clCurrent.nFd(), &tNames)) {
            _NoteFailure({});
        }

        for (std::string& csName : tNames) {
            // The call itself says what is a directory: a look beforehand could be outdated.
            if (::unlinkat(m_clCurrent.nFd(), csName.c_str(), 0) == 0) {
                continue;
            }
            if (errno == EISDIR) {
                m_tLevels.back().tDirectories.push_back(std::move(csName));
            } else {
                _NoteFailure(csName);
            }
        }
    }

    /// Enters the last directory of the current level's list and deletes the files in it. Refuses a mount
    /// point: what is mounted there is not the server's own.
    void _Descend()
    {
        std::string csName = std::move(m_tLevels.back().tDirectories.back());
        m_tLevels.back().tDirectories.pop_back();

        CDescripteur clBelow = clOpenDirectory(m_clCurrent.nFd(), csName.c_str());
        const std::optional<STPlace> stBelow = clBelow.bOpen() ? stPlaceOf(clBelow.nFd()) : std::nullopt;
        if (!stBelow) {
            _NoteFailure(csName);
            return;
        }
        if (!stBelow->bSameMount(m_tLevels.back().stPlace)) {
            errno = EBUSY;
            _NoteFailure(csName);
            return;
        }

        m_tLevels.push_back({std::move(csName), *stBelow, {}});
        m_clCurrent = std::move(clBelow);
        _DeleteFiles();
    }

    /// Returns to the parent and deletes the directory that was left. The parent must be the directory that
    /// the walk came from: if someone has moved the current directory meanwhile, ".." leads to a foreign one.
    /// From there the walk cannot go on: it is lost.
    void _Ascend()
    {
        CDescripteur clParent = clOpenDirectory(m_clCurrent.nFd(), "..");
        const std::optional<STPlace> stParent = clParent.bOpen() ? stPlaceOf(clParent.nFd()) : std::nullopt;
        if (!stParent || *stParent != m_tLevels[m_tLevels.size() - 2].stPlace) {
            errno = stParent ? ESTALE : errno;
            _NoteFailure({});
            m_bLost = true;
            return;
        }

        const std::string csName = std::move(m_tLevels.back().csName);
        m_tLevels.pop_back();
        m_clCurrent = std::move(clParent);
        if (::unlinkat(m_clCurrent.nFd(), csName.c_str(), AT_REMOVEDIR) != 0) {
            _NoteFailure(csName);
        }
    }

    CXError* m_pclError;
    CDescripteur m_clCurrent;
    std::vector<STLevel> m_tLevels;
    bool m_bFailed = false;
    bool m_bLost = false; ///< ".." does not lead back any more
};

/// Whether a path names a place by itself: absolute, without a NUL, where the kernel would end it, and
/// without the name "..", which means another directory after a symbolic link.
bool bUnambiguous(const std::string& csPath)
{
    return csPath.starts_with('/') && csPath.find('\0') == std::string::npos &&
           (csPath + "/").find("/../") == std::string::npos;
}

std::string csWithoutTrailingSlashes(std::string csPath)
{
    while (csPath.size() > 1 && csPath.back() == '/') {
        csPath.pop_back();
    }
    return csPath;
}

/// The directory's resolved path; empty with errno when it does not exist or must not be deleted.
std::string csResolveOwnFolder(const std::wstring& csDirectory)
{
    // Without trailing slashes: lstat would follow a symbolic link whose name has one.
    const std::string csPath = csWithoutTrailingSlashes(csToUTF8(csDirectory));
    if (!bUnambiguous(csPath)) {
        errno = EPERM;
        return {};
    }

    STFileStatus st{};
    if (::lstat(csPath.c_str(), &st) != 0) {
        return {};
    }
    const std::unique_ptr<char, decltype(&std::free)> pszReal(::realpath(csPath.c_str(), nullptr),
                                                              &std::free);
    if (!pszReal) {
        return {};
    }

    // A symbolic link is refused even where it leads to a server's folder: its target may be anybody's.
    if (!S_ISDIR(st.st_mode)) {
        errno = S_ISLNK(st.st_mode) ? EPERM : ENOTDIR;
        return {};
    }

    // The folder in or under which the manager's own executable lies must stay, whatever a server claims.
    std::string csReal = pszReal.get();
    const std::string csOwnExecutable = csToUTF8(GetModuleFileNameW(SIZE_MAX));
    if (!bOwnFolder(csReal) || csOwnExecutable.starts_with(csReal + "/")) {
        errno = EPERM;
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

    // The parent stays open throughout: at the end the folder's entry is deleted in this directory, even if
    // its path means another one by then.
    const std::size_t nName = csPath.rfind('/') + 1;
    const std::string csName = csPath.substr(nName);
    const CDescripteur clParent = clOpenResolved(csPath.substr(0, nName - 1));

    // Each call is made only if the one before succeeded, so errno is that of the first failure.
    CDescripteur clTop = clParent.bOpen() ? clOpenDirectory(clParent.nFd(), csName.c_str()) : CDescripteur();
    const std::optional<STPlace> stParent = clTop.bOpen() ? stPlaceOf(clParent.nFd()) : std::nullopt;
    const std::optional<STPlace> stTop = stParent ? stPlaceOf(clTop.nFd()) : std::nullopt;
    if (!stTop) {
        return bFail(pclError, L"delete", csDirectory);
    }

    if (!stTop->bSameMount(*stParent)) { // the folder is a mount point
        errno = EPERM;
        return bFail(pclError, L"delete", csDirectory);
    }

    if (!CTreeEraser(pclError).bEraseContents(std::move(clTop), csPath)) {
        return false;
    }
    return ::unlinkat(clParent.nFd(), csName.c_str(), AT_REMOVEDIR) == 0 ||
           bFail(pclError, L"delete", csDirectory);
}
