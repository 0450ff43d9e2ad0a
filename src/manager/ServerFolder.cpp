#include "manager/ServerFolder.h"

#include "main/Logger.h"
#include "service/ServiceManagerUnix.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/ManagerNames.h"
#include "support/SystemCall.h"
#include "support/WinApi.h"

#include <cerrno>
#include <filesystem>
#include <optional>
#include <sys/stat.h>

namespace {
using CPath = std::filesystem::path;

/// Where a file really lies: links in the path of its folder are followed, the file itself is not, even if it
/// is a link. None when that cannot be found out.
std::optional<CPath> clPlaceOf(const CPath& clFile)
{
    std::error_code clError;
    const CPath clFolder = std::filesystem::weakly_canonical(clFile.parent_path(), clError);
    return clError ? std::nullopt : std::optional(clFolder / clFile.filename());
}

/// Whether a file is in the folder or below it, also when another name of the folder (a bind mount) leads
/// there. The path may have been cut at a space: "/opt/my" counts as in "/opt/my server", where its rest may
/// lead. Whole components are compared: "/opt/a" does not hold "/opt/ab".
bool bIsBelow(const CPath& clFile, const CPath& clFolder)
{
    // Upwards to "/", the only path that is its own parent.
    for (CPath clParent = clFile.parent_path(); clParent != clParent.parent_path();
         clParent = clParent.parent_path()) {
        std::error_code clNotThere;
        if (std::filesystem::equivalent(clParent, clFolder, clNotThere)) {
            return true;
        }
    }
    return (clFile.string() + "/").starts_with(clFolder.string() + "/") ||
           clFolder.string().starts_with(clFile.string() + " ");
}

/// Whether another service's executable lies in the folder: the file itself, or what it links to. None when
/// that cannot be found out.
std::optional<bool> bLiesIn(const CPath& clFile, const CPath& clFolder)
{
    std::error_code clError;
    const std::optional<CPath> clPlace = clPlaceOf(clFile);
    const CPath clTarget = std::filesystem::weakly_canonical(clFile, clError);
    if (!clPlace || clError) {
        return std::nullopt;
    }
    return bIsBelow(*clPlace, clFolder) || bIsBelow(clTarget, clFolder);
}

/// Why the executable does not prove whose folder it lies in; empty when it does.
std::wstring csDoubtOfExecutable(CService& clService, const std::wstring& csExecutable)
{
    if (!csExecutable.starts_with(L'/') || csExecutable.find(L'\0') != std::wstring::npos) {
        return L"the path of its executable is not known";
    }
    if (!clService.bOneProgram()) {
        return L"it starts more than one program";
    }

    // Not stat: a link proves nothing, as it may lead to a file that lies elsewhere.
    STFileStatus stFile{};
    if (::lstat(csToUTF8(csExecutable).c_str(), &stFile) == 0) {
        return S_ISREG(stFile.st_mode) ? L"" : L"its executable is not a regular file";
    }
    if (errno != ENOENT) {
        return L"its executable cannot be looked at: " + csSystemMessage(errno);
    }

    // The path of a file that is gone may be only the beginning of a longer one. It is whole when the unit
    // file or the script says the same.
    return clService.csProgramOnDisk() == csExecutable
               ? L""
               : L"its executable is gone, and its unit file or init script does not name it";
}

/// Why another service may have its executable in the folder; empty when none has.
std::wstring csDoubtOfOthers(CServiceManager* pclManager, const CService& clService, const CPath& clFolder)
{
    // The manager's own service counts, too: its executable may lie in the product's folder.
    const auto tOthers = pclManager->tRegistered(g_szServerPrefix, {g_szDefaultServer, g_szManagerService});
    if (!tOthers) {
        return L"the other servers could not be listed: " + csSystemMessage(errno);
    }

    for (const auto& pclOther : *tOthers) {
        if (pclOther->clName() == clService.clName()) {
            continue;
        }

        std::optional<bool> bInside;
        const std::wstring csExecutable = pclOther->csGetExecutable();
        if (csExecutable.starts_with(L'/') && pclOther->bOneProgram()) {
            bInside = bLiesIn(csToUTF8(csExecutable), clFolder);
        }

        std::wstring csWhy =
            L"the executable of \"" + pclOther->csRegisteredName() + L"\" lies in its folder";
        if (!bInside) { // what cannot be found out counts against the deletion
            return L"it is not known whether " + csWhy;
        }
        if (*bInside) {
            return csWhy;
        }
    }
    return {};
}

/// Why the folder must not be deleted; empty when it may be.
std::wstring csDoubt(CServiceManager* pclManager, CService& clService, const std::wstring& csExecutable)
{
    std::wstring csWhy = csDoubtOfExecutable(clService, csExecutable);
    if (!csWhy.empty()) {
        return csWhy;
    }

    const std::optional<CPath> clPlace = clPlaceOf(csToUTF8(csExecutable));
    if (!clPlace) {
        return L"its folder cannot be looked at";
    }
    return csDoubtOfOthers(pclManager, clService, clPlace->parent_path());
}

void LogKept(CService& clService, const std::wstring& csWhy)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_FOLDER_KEPT, &csText, clService.csRegisteredName().c_str(),
                          clService.csGetExecutable().c_str(), csWhy.c_str());

    // The logger takes the formatted text for a format once more.
    CLogger().AddLog(ILogger::PRIORITY_ERROR, L"%1!s!", csEscapePercent(csText).c_str());
}
} // namespace

bool bDeleteServerFolder(CServiceManager* pclManager, CService& clService, std::wstring* pcsSystemMessage)
{
    const std::wstring csExecutable = clService.csGetExecutable();
    if (csExecutable.empty() || !CDiskFile::bDirectoryExists(CDiskFile::csDirectory(csExecutable))) {
        return false;
    }

    if (const std::wstring csWhy = csDoubt(pclManager, clService, csExecutable); !csWhy.empty()) {
        LogKept(clService, csWhy);
        return false;
    }

    CXError clError;
    const bool bDeleted = CDiskFile::bDeleteTree(CDiskFile::csDirectory(csExecutable), &clError);
    *pcsSystemMessage = clError.csGetSystemMessage();
    if (!bDeleted) {
        LogKept(clService, *pcsSystemMessage);
    }
    return bDeleted;
}
