#pragma once

#include "support/XError.h"

#include <string>

/// Operations on disk files and directory names, all by wide path (UTF-8 on disk; a path with a NUL names no
/// file). The class has no state; any thread may call them. An operation that takes an error returns false
/// with errno when it fails, and fills the error unless it is null.
class CDiskFile
{
public:
    /// Splits at the last "/": directory with its trailing slash, file name. Either may be empty.
    static void __SplitPath(const std::wstring& csPath, std::wstring* pcsDirectory, std::wstring* pcsName);
    /// Directory part of a path, ending in "/"; empty when the path has none.
    static std::wstring csDirectory(const std::wstring& csPath);
    /// Every backslash becomes "/", then "/" is appended unless the text is empty or already ends in one.
    static std::wstring DirectoryWithEndSlash(std::wstring csDirectory);

    /// Whether two names mean one directory: equal text once slashes are normalised (backslashes, doubled and
    /// trailing ones), or the same directory on disk (device and inode). An empty name equals nothing.
    static bool bSameDirectoryName(const std::wstring& cs1, const std::wstring& cs2);
    /// The same for files.
    static bool bSameFileName(const std::wstring& cs1, const std::wstring& cs2);

    static bool bExists(const std::wstring& csPath);
    static bool bDirectoryExists(const std::wstring& csPath);
    /// Deletes a file, not a directory.
    static bool bDelete(const std::wstring& csPath, CXError* pclError = nullptr);
    /// Creates a directory and its missing parents, mode 0777 less the umask. True when it exists afterwards.
    static bool bCreateDirectory(const std::wstring& csPath, CXError* pclError = nullptr);

    /// Deletes one server's own folder with all that is in it. Follows no symbolic link, crosses no mount
    /// point, and refuses (EPERM) what cannot be one server's own folder: "/", the operating system's
    /// directories, anything directly under "/", a mount point. True only when nothing is left; otherwise the
    /// error names the first obstacle, and everything that could be deleted is gone.
    static bool bDeleteTree(const std::wstring& csDirectory, CXError* pclError = nullptr);

    /// Replaces or creates a file with the given bytes. A new file has mode 0666 less the umask; an old one
    /// keeps its owner and mode. The new content takes the old one's place in one step, when it is safely on
    /// the disk. Where that is impossible (a device, a file with several hard links, a directory that takes
    /// no new file...) the file is written over, and a failure may leave it cut.
    static bool bWriteFile(const std::wstring& csPath, const std::string& csBytes,
                           CXError* pclError = nullptr);
    /// Whole content of a regular file of at most nMax bytes; false (EFBIG, EISDIR, EINVAL...) otherwise.
    static bool bReadFile(const std::wstring& csPath, std::string* pcsBytes, std::size_t nMax = 16u << 20,
                          CXError* pclError = nullptr);
};
