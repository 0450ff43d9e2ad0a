#include "support/DiskFile.h"

#include "support/Conversion.h"
#include "support/SystemCall.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace {
constexpr mode_t s_nFileMode = 0666;
constexpr mode_t s_nDirectoryMode = 0777;
/// Names tried for a new file: earlier processes with this pid that crashed may have left files of some.
constexpr int s_nMaxNames = 100;

/// A path as the kernel takes it. Empty, which names no file, for a path with a NUL: the kernel would take
/// the text before the NUL for the name.
std::string csDiskPath(const std::wstring& csPath)
{
    return csPath.find(L'\0') == std::wstring::npos ? csToUTF8(csPath) : std::string();
}

/// Turns backslashes into slashes, makes doubled slashes one and drops a trailing one (except that of "/").
std::wstring csNormalised(const std::wstring& csName)
{
    std::wstring csResult;
    for (const wchar_t c : csName) {
        const wchar_t cTurned = c == L'\\' ? L'/' : c;
        if (cTurned != L'/' || csResult.empty() || csResult.back() != L'/') {
            csResult += cTurned;
        }
    }

    if (csResult.size() > 1 && csResult.back() == L'/') {
        csResult.pop_back();
    }
    return csResult;
}

/// Compares device and inode; links are followed.
bool bSameOnDisk(const std::wstring& cs1, const std::wstring& cs2, bool bDirectory)
{
    STFileStatus st1{};
    STFileStatus st2{};
    return ::stat(csDiskPath(cs1).c_str(), &st1) == 0 && ::stat(csDiskPath(cs2).c_str(), &st2) == 0 &&
           st1.st_dev == st2.st_dev && st1.st_ino == st2.st_ino && (!bDirectory || S_ISDIR(st1.st_mode));
}

/// Compares the text first: equal names mean the same file even if it does not exist yet.
bool bSameName(const std::wstring& cs1, const std::wstring& cs2, bool bDirectory)
{
    const std::wstring csName1 = csNormalised(cs1);
    const std::wstring csName2 = csNormalised(cs2);
    if (csName1.empty() || csName2.empty()) {
        return false;
    }
    return csName1 == csName2 || bSameOnDisk(csName1, csName2, bDirectory);
}

// There are two ways of writing. A new file that is renamed over the old one is safe against a full disk and
// a crash, so it comes first. Writing over the file itself is for the few places where that is impossible.

/// Writes over the file itself, where a new file cannot take its place: a device, or a directory in which no
/// file can be created.
bool bOverwrite(const std::string& csPath, const std::string& csBytes)
{
    // O_NONBLOCK: the file may be a FIFO, whose reader nobody should wait for.
    constexpr int nFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
    const CDescripteur clFile(::open(csPath.c_str(), nFlags, s_nFileMode));
    return clFile.bOpen() && bWriteAll(clFile.nFd(), csBytes);
}

/// Name for the new content, in the file's directory so that rename works, and hidden so that tools which
/// read the directory's files (init scripts, units) pass over it.
std::string csNewName(const std::string& csPath)
{
    static std::atomic<unsigned int> s_nCounter{0};
    const std::size_t nName = csPath.rfind('/') + 1;
    return csPath.substr(0, nName) + ".velmo-" + std::to_string(::getpid()) + "-" +
           std::to_string(++s_nCounter);
}

/// Creates an empty file beside the one at a path; its own path is in *pcsNew. None with errno.
CDescripteur clCreateBeside(const std::string& csPath, std::string* pcsNew)
{
    // A name that is taken (EEXIST) is no obstacle, any other failure is.
    CDescripteur clFile;
    for (int n = 0; n < s_nMaxNames && !clFile.bOpen() && (n == 0 || errno == EEXIST); ++n) {
        *pcsNew = csNewName(csPath);
        clFile = CDescripteur(::open(pcsNew->c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, s_nFileMode));
    }
    return clFile;
}

/// Gives the new file the owner and mode of the one it replaces; the mode comes last, as a change of owner
/// clears bits of it. False when that fails: others might then read or write what they could not before, so
/// the new file must not be used.
bool bCopyOwnerAndMode(int nFd, const STFileStatus& stOld)
{
    return ::fchown(nFd, stOld.st_uid, stOld.st_gid) == 0 && ::fchmod(nFd, stOld.st_mode & 07777) == 0;
}

/// Writes a new file and renames it over the old one (null: there is none), whose content therefore survives
/// a full disk or a crash. On failure *pbTryOverwrite says whether bOverwrite may still succeed.
bool bReplace(const std::string& csPath, const std::string& csBytes, const STFileStatus* pstOld,
              bool* pbTryOverwrite)
{
    std::string csNew;
    const CDescripteur clFile = clCreateBeside(csPath, &csNew);
    if (!clFile.bOpen()) {
        // The directory takes no new file, or not this name, which may be longer than the old file's.
        *pbTryOverwrite = errno == EACCES || errno == EPERM || errno == ENAMETOOLONG;
        return false;
    }

    // Owner and mode come before the content, which may be secret. fsync comes before rename: after a crash
    // the name could otherwise lead to an empty file.
    if (pstOld != nullptr && !bCopyOwnerAndMode(clFile.nFd(), *pstOld)) {
        *pbTryOverwrite = true;
    } else if (bWriteAll(clFile.nFd(), csBytes) && ::fsync(clFile.nFd()) == 0) {
        if (::rename(csNew.c_str(), csPath.c_str()) == 0) {
            return true;
        }
        *pbTryOverwrite = errno == EBUSY; // the file is a mount point
    }

    const int nErrno = errno;
    ::unlink(csNew.c_str());
    errno = nErrno;
    return false;
}

/// The path of the file that symbolic links lead to, so that the links are kept; the path unchanged when
/// there is no file yet.
std::string csResolved(const std::string& csPath)
{
    const std::unique_ptr<char, decltype(&std::free)> pszReal(::realpath(csPath.c_str(), nullptr),
                                                              &std::free);
    return pszReal ? std::string(pszReal.get()) : csPath;
}

/// Chooses between the two ways of writing by the kind of file at the path.
bool bWrite(const std::string& csPath, const std::string& csBytes)
{
    if (csPath.empty()) {
        errno = ENOENT;
        return false;
    }

    // A device must not be replaced by a file. Of a file with several hard links only this name would get the
    // new content.
    const std::string csFile = csResolved(csPath);
    STFileStatus stOld{};
    const bool bOld = ::lstat(csFile.c_str(), &stOld) == 0;
    if (bOld && (!S_ISREG(stOld.st_mode) || stOld.st_nlink > 1)) {
        return bOverwrite(csFile, csBytes);
    }

    bool bTryOverwrite = false;
    return bReplace(csFile, csBytes, bOld ? &stOld : nullptr, &bTryOverwrite) ||
           (bTryOverwrite && bOverwrite(csFile, csBytes));
}

/// Reads to the end of the file; false with errno, EFBIG beyond nMax bytes. The size that fstat reports is of
/// no use: for files of /proc it is 0.
bool bReadAll(int nFd, std::string* pcsBytes, std::size_t nMax)
{
    // On the heap: a worker's stack has 64 KiB.
    auto pBuffer = std::make_unique<std::array<char, 16384>>();
    while (true) {
        const ssize_t nRead = nRetry([&] { return ::read(nFd, pBuffer->data(), pBuffer->size()); });
        if (nRead <= 0) {
            return nRead == 0;
        }

        if (static_cast<std::size_t>(nRead) > nMax - pcsBytes->size()) {
            errno = EFBIG;
            return false;
        }
        pcsBytes->append(pBuffer->data(), static_cast<std::size_t>(nRead));
    }
}
} // namespace

void CDiskFile::__SplitPath(const std::wstring& csPath, std::wstring* pcsDirectory, std::wstring* pcsName)
{
    const std::size_t nName = csPath.rfind(L'/') + 1; // 0 when there is no slash
    *pcsName = csPath.substr(nName);
    *pcsDirectory = csPath.substr(0, nName);
}

std::wstring CDiskFile::csDirectory(const std::wstring& csPath)
{
    return csPath.substr(0, csPath.rfind(L'/') + 1);
}

std::wstring CDiskFile::DirectoryWithEndSlash(std::wstring csDirectory)
{
    std::ranges::replace(csDirectory, L'\\', L'/');
    if (!csDirectory.empty() && csDirectory.back() != L'/') {
        csDirectory += L'/';
    }
    return csDirectory;
}

bool CDiskFile::bSameDirectoryName(const std::wstring& cs1, const std::wstring& cs2)
{
    return bSameName(cs1, cs2, true);
}

bool CDiskFile::bSameFileName(const std::wstring& cs1, const std::wstring& cs2)
{
    return bSameName(cs1, cs2, false);
}

bool CDiskFile::bExists(const std::wstring& csPath)
{
    STFileStatus st{};
    return ::stat(csDiskPath(csPath).c_str(), &st) == 0;
}

bool CDiskFile::bDirectoryExists(const std::wstring& csPath)
{
    STFileStatus st{};
    return ::stat(csDiskPath(csPath).c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool CDiskFile::bDelete(const std::wstring& csPath, CXError* pclError)
{
    return ::unlink(csDiskPath(csPath).c_str()) == 0 || bFail(pclError, L"delete", csPath);
}

bool CDiskFile::bCreateDirectory(const std::wstring& csPath, CXError* pclError)
{
    const std::wstring csWhole = DirectoryWithEndSlash(csPath);
    const std::string csBytes = csDiskPath(csWhole);
    int nError = ENOENT;

    for (std::size_t nEnd = csBytes.find('/'); nEnd != std::string::npos;
         nEnd = csBytes.find('/', nEnd + 1)) {
        // A parent that cannot be created may still exist (EEXIST, EROFS...): only the last result counts.
        nError = ::mkdir(csBytes.substr(0, nEnd + 1).c_str(), s_nDirectoryMode) == 0 ? 0 : errno;
    }

    if (bDirectoryExists(csWhole)) {
        return true;
    }

    // Created without an error and yet not there: somebody has deleted the directory since.
    errno = nError != 0 ? nError : ENOENT;
    return bFail(pclError, L"create directory", csPath);
}

bool CDiskFile::bWriteFile(const std::wstring& csPath, const std::string& csBytes, CXError* pclError)
{
    return bWrite(csDiskPath(csPath), csBytes) || bFail(pclError, L"write", csPath);
}

bool CDiskFile::bReadFile(const std::wstring& csPath, std::string* pcsBytes, std::size_t nMax,
                          CXError* pclError)
{
    pcsBytes->clear();
    const CDescripteur clFile = clOpenRegular(csDiskPath(csPath), O_RDONLY);
    if (!clFile.bOpen()) {
        return bFail(pclError, L"open", csPath);
    }
    return bReadAll(clFile.nFd(), pcsBytes, nMax) || bFail(pclError, L"read", csPath);
}
