// The systemd back end of CServiceManager: drives systemctl, reads what it prints, writes unit files.

#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "service/Systemctl.h"
#include "service/SystemctlOutput.h"
#include "service/SystemdListing.h"
#include "service/SysVFamily.h"
#include "service/UnitFile.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/Stopping.h"

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <vector>

namespace {
/// Limit of the first question to systemctl: if it hangs, the daemon must start all the same.
constexpr unsigned int s_nDetectionLimitMs = 30'000;

/// A text from systemctl as a record's field; null stays null.
std::optional<std::wstring> csDecode(const std::optional<std::string>& csBytes)
{
    return csBytes ? std::optional(csFromUTF8(*csBytes)) : std::nullopt;
}

/// The names of services in a listing that begin with the prefix, each once.
std::vector<CServiceName> tReadNames(std::string_view csListing, const std::wstring& csPrefix)
{
    std::vector<CServiceName> tNames;
    for (const std::string_view csListed : tReadListing(csListing)) {
        CServiceName clName = CServiceName::s_clListed(csListed);

        // The files of templates, whose only "@" is at the end, are listed, too. They are no services.
        const bool bTemplate = csListed.find('@') + 1 == csListed.size();
        if (!bTemplate && clName.csText().starts_with(csPrefix) &&
            std::ranges::find(tNames, clName) == tNames.end()) {
            tNames.push_back(std::move(clName));
        }
    }
    return tNames;
}

/// The names of services in a listing that begin with the prefix, then those that are exactly a further name.
std::vector<CServiceName> tReadNamesAnd(std::string_view csListing, const wchar_t* pszPrefix,
                                        std::initializer_list<const wchar_t*> tFurther)
{
    std::vector<CServiceName> tNames = tReadNames(csListing, pszPrefix);
    for (const wchar_t* pszName : tFurther) {
        std::ranges::copy_if(tReadNames(csListing, pszName), std::back_inserter(tNames),
                             [pszName](const CServiceName& clName) { return clName.csText() == pszName; });
    }
    return tNames;
}
} // namespace

bool CServiceManager::_bSystemdWorks()
{
    if (!CDiskFile::bExists(g_szSystemctl)) {
        return false;
    }

    // Any listing will do: only a systemctl that can talk to systemd exits with status 0.
    const auto bAnswers = [] {
        CLanceProcessus clLauncher;
        unsigned int nExitCode = 1;
        return clLauncher.bLanceProcessus(g_szSystemctl, L"--no-pager --no-legend", nullptr) &&
               clLauncher.bAttendFinExecution(&nExitCode, s_nDetectionLimitMs) && nExitCode == 0;
    };

    // systemd makes this folder, by which programs recognise that it was booted. A systemctl that fails on
    // such a machine must not make the manager drive init scripts for the rest of its life. The machine
    // counts as one with systemd, and each question fails until systemctl answers again.
    return bAnswers() || CDiskFile::bDirectoryExists(L"/run/systemd/system");
}

CTString CServiceManager::csGetSystemdProp(const char* pszProperty, const wchar_t* pszName)
{
    return csAskSystemdProp(pszProperty, CServiceName::s_clSaid(pszName)).value_or(std::wstring());
}

std::optional<std::wstring> CServiceManager::csAskSystemdProp(const char* pszProperty,
                                                              const CServiceName& clName)
{
    if (clName.csAsked().empty()) { // such a unit has no properties
        return std::wstring();
    }

    const std::optional<std::string> csAnswer = csAskSystemctl(
        {L"--property=" + csFromUTF8(pszProperty) + L" show " + clName.csAsked(), pszProperty});
    if (!csAnswer) {
        return std::nullopt;
    }

    // The property's line, as systemctl may mix complaints into its answer. An answer without such a line is
    // read from its first "=" on; clients rely on it.
    const std::string_view csLine = csPropertyLine(*csAnswer, pszProperty);
    return csFromUTF8(csReadProperty(csLine.empty() ? *csAnswer : csLine));
}

std::unique_ptr<CService> CServiceManager::_pclMakeShown(const CServiceName& clName,
                                                         std::string_view csOutput)
{
    const STUnitShown stShown = stReadShow(csOutput);
    if (!stShown.bExists) {
        errno = ENOENT;
        return nullptr;
    }

    // systemd describes a unit that has no description of its own by its file name.
    std::optional<std::wstring> csDisplayName = csDecode(stShown.csDescription);
    if (csDisplayName == clName.csUnitFile()) {
        csDisplayName = clName.csText();
    }

    // A unit that systemd has generated for an init script runs the script, which names the server's program.
    std::optional<std::wstring> csBinaryPath = csDecode(stShown.csBinaryPath);
    if (csBinaryPath && csBinaryPath->starts_with(g_szScriptDirectory)) {
        auto pclService = std::make_unique<CService>(this, clName, std::move(csDisplayName));

        // A script that is gone leaves the record without a program. One that cannot be read makes the lookup
        // fail.
        if (!pclService->bReadScript() && errno != ENOENT) {
            return nullptr;
        }
        return pclService;
    }

    auto pclService = std::make_unique<CService>(this, clName, std::move(csDisplayName),
                                                 std::move(csBinaryPath), csDecode(stShown.csExecutable));
    pclService->SetOneProgram(stShown.bOneProgram);
    return pclService;
}

std::unique_ptr<CService> CServiceManager::__pclGetServiceSystemd(const CServiceName& clName)
{
    if (clName.csAsked().empty()) {
        errno = ENOENT;
        return nullptr;
    }

    const std::optional<std::string> csAnswer =
        csAskSystemctl({L"--property=Description,ExecStart,Type show " + clName.csAsked(), "Type"});
    return csAnswer ? _pclMakeShown(clName.clRegistered(), *csAnswer) : nullptr;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSystemd(const std::wstring& csPrefix,
                                                                              const wchar_t* pszFurther)
{
    const std::optional<std::string> csAnswer = csAskSystemctl(stListUnits());
    if (!csAnswer) {
        return nullptr;
    }

    // All units are listed and picked here: as a pattern for systemctl the prefix could mean something else.
    // The prefix has the form of a script's name under systemd, too.
    const std::wstring csStart = CServiceName::s_clSaid(csPrefix.c_str()).csScript();
    std::vector<CServiceName> tNames = tReadNames(*csAnswer, csStart);
    if (pszFurther != nullptr) {
        tNames.push_back(CServiceName::s_clSaid(pszFurther).clLookedUp());
    }
    return std::make_unique<CSystemdListing>(this, std::move(tNames));
}

bool CServiceManager::_bAddUnloaded(const wchar_t* pszPrefix, std::initializer_list<const wchar_t*> tFurther,
                                    std::vector<std::unique_ptr<CService>>* ptServices)
{
    const std::optional<std::string> csAnswer = csAskSystemctl(stListUnitFiles());
    if (!csAnswer) {
        return false;
    }

    // Ask only about those that the caller does not have from the listing of loaded units.
    std::vector<CServiceName> tNames = tReadNamesAnd(*csAnswer, pszPrefix, tFurther);
    const auto bKnown = [ptServices](const CServiceName& clName) {
        return std::ranges::any_of(*ptServices, [&](const auto& pcl) { return pcl->clName() == clName; });
    };
    std::erase_if(tNames, bKnown);

    CSystemdListing clListing(this, tNames);
    while (auto pclService = clListing.pclNext()) {
        ptServices->push_back(std::move(pclService));
    }

    // Those that systemd did not show have a unit file, too, but a masked or unreadable one: only the name is
    // known.
    for (CServiceName& clName : tNames) {
        if (!bKnown(clName)) {
            ptServices->push_back(std::make_unique<CService>(this, std::move(clName)));
        }
    }

    errno = clListing.nError();
    return clListing.nError() == 0;
}

std::unique_ptr<CService> CServiceManager::__pclInstallSystemd(const CServiceName& clName,
                                                               const wchar_t* pszDisplayName,
                                                               const std::wstring& csBinaryPath,
                                                               bool bAutoStart, bool bRestartOnAbnormal)
{
    // Refuse what a lookup would read differently: nobody could find the server's program and settings.
    if (!bUnitReadsBack(csBinaryPath, clName)) {
        errno = EINVAL;
        return nullptr;
    }

    CUnitFile clFile(clName);
    if (!clFile.bWrite(csUnitText(clName, pszDisplayName != nullptr ? pszDisplayName : L"", csBinaryPath,
                                  bRestartOnAbnormal))) {
        return nullptr;
    }

    auto pclService =
        std::make_unique<CService>(this, clName.csRegistry().c_str(), pszDisplayName, csBinaryPath.c_str());

    // A failed reload does not fail the installation: where systemd cannot do without it, the start that
    // follows fails and is reported.
    if (!bSystemctlDone(L"daemon-reload")) {
        pclService->AddMissingStep(L"systemctl daemon-reload");
    }

    const std::wstring csEnable = L"enable " + clName.csAsked();
    if (bAutoStart && !bSystemctlDone(csEnable)) {
        if (CStopping::bMayGoOn()) { // systemd itself refuses
            clFile.TakeBack();
            return nullptr;
        }

        // The daemon's stop has cut systemctl short: the unit is good, and somebody can still enable it.
        pclService->AddMissingStep(L"systemctl " + csEnable);
    }
    return pclService;
}

bool CServiceManager::bTakeBackRefused(const CService& clService)
{
    // With these states systemd refuses every start. Any other failed start may be the server's own fault.
    static constexpr const wchar_t* s_tRefused[] = {L"bad-setting", L"error", L"not-found", L"masked"};
    if (!bSystemd()) {
        return false; // nobody refuses a script
    }

    const int nErrno = errno; // why the start failed, which the caller reports
    const std::wstring csLoadState =
        csAskSystemdProp("LoadState", clService.clName()).value_or(std::wstring());
    const bool bRefused = std::ranges::find(s_tRefused, csLoadState) != std::end(s_tRefused);
    if (bRefused) {
        CUnitFile(clService.clName()).TakeBack();
    }
    errno = nErrno;
    return bRefused;
}
