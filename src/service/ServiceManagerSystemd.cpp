// The systemd back end: drives systemctl, reads what it prints, writes unit files.

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
/// A systemctl that hangs when the daemon starts must not keep it from starting for ever.
constexpr unsigned int s_nDetectionLimitMs = 30'000;

std::optional<std::wstring> csDecode(const std::optional<std::string>& csBytes)
{
    return csBytes ? std::optional(csFromUTF8(*csBytes)) : std::nullopt;
}

/// Names in a listing that begin with the prefix, each once.
std::vector<CServiceName> tReadNames(std::string_view csListing, const std::wstring& csStart)
{
    std::vector<CServiceName> tNames;
    for (const std::string_view csListed : tReadListing(csListing)) {
        CServiceName clName = CServiceName::s_clListed(csListed);
        // Files of templates are listed, too: their only "@" is at the end. They are no services.
        const bool bTemplate = csListed.find('@') + 1 == csListed.size();
        if (!bTemplate && clName.csText().starts_with(csStart) &&
            std::find(tNames.begin(), tNames.end(), clName) == tNames.end()) {
            tNames.push_back(std::move(clName));
        }
    }
    return tNames;
}
} // namespace

bool CServiceManager::__bSystemdWorks()
{
    const auto bAnswers = [] {
        CLanceProcessus clLauncher;
        unsigned int nExitCode = 1;
        return clLauncher.bLanceProcessus(g_szSystemctl, L"--no-pager --no-legend", nullptr) &&
               clLauncher.bAttendFinExecution(&nExitCode, s_nDetectionLimitMs) && nExitCode == 0;
    };
    if (!CDiskFile::bExists(g_szSystemctl)) {
        return false;
    }
    // Where systemd was booted a systemctl that fails is no answer: the manager would drive init scripts for
    // the rest of its life. systemd makes this folder, by which programs recognise it.
    return CDiskFile::bDirectoryExists(L"/run/systemd/system") ? bAskPersistently(bAnswers) : bAnswers();
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
    const std::string_view csLine = csPropertyLine(*csAnswer, pszProperty);
    return csFromUTF8(csReadProperty(csLine.empty() ? *csAnswer : csLine));
}

std::unique_ptr<CService> CServiceManager::__pclMakeShown(const CServiceName& clName,
                                                          std::string_view csOutput)
{
    const STUnitShown stShown = stReadShow(csOutput);
    if (!stShown.bExists) {
        errno = ENOENT;
        return nullptr;
    }
    std::optional<std::wstring> csDisplayName = csDecode(stShown.csDescription);
    if (csDisplayName == clName.csUnitFile()) {
        csDisplayName =
            clName.csText(); // systemd describes by its file name a unit that does not describe itself
    }
    std::optional<std::wstring> csBinaryPath = csDecode(stShown.csBinaryPath);
    // A unit that systemd made of an init script runs the script: the server's program stands inside it.
    if (csBinaryPath && csBinaryPath->starts_with(g_szScriptDirectory)) {
        auto pclService = std::make_unique<CService>(this, clName, std::move(csDisplayName));
        return pclService->bReadScript() || errno == ENOENT ? std::move(pclService) : nullptr;
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
    return csAnswer ? __pclMakeShown(clName.clRegistered(), *csAnswer) : nullptr;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSystemd(const std::wstring& csPrefix,
                                                                              const wchar_t* pszFurther)
{
    const std::optional<std::string> csAnswer = csAskSystemctl(stListUnits());
    if (!csAnswer) {
        return nullptr;
    }
    // All units are listed and picked here: a pattern would be read by systemctl, whatever it holds.
    const std::wstring csStart = CServiceName::s_clSaid(csPrefix.c_str()).csScript();
    std::vector<CServiceName> tNames = tReadNames(*csAnswer, csStart);
    if (pszFurther != nullptr) {
        tNames.push_back(CServiceName::s_clSaid(pszFurther).clLookedUp());
    }
    return std::make_unique<CSystemdListing>(this, std::move(tNames));
}

bool CServiceManager::__bAddUnloaded(std::initializer_list<const wchar_t*> tFurther, const wchar_t* pszPrefix,
                                     std::vector<std::unique_ptr<CService>>* ptServices)
{
    const std::optional<std::string> csAnswer = csAskSystemctl(stListUnitFiles());
    if (!csAnswer) {
        return false;
    }
    std::vector<CServiceName> tNames = tReadNames(*csAnswer, pszPrefix);
    for (const wchar_t* pszName : tFurther) {
        const std::vector<CServiceName> tAlike = tReadNames(*csAnswer, pszName);
        std::copy_if(tAlike.begin(), tAlike.end(), std::back_inserter(tNames),
                     [pszName](const CServiceName& clName) { return clName.csText() == pszName; });
    }
    const auto bKnown = [ptServices](const CServiceName& clName) {
        return std::any_of(ptServices->begin(), ptServices->end(),
                           [&clName](const auto& pcl) { return pcl->clName() == clName; });
    };
    tNames.erase(std::remove_if(tNames.begin(), tNames.end(), bKnown), tNames.end());

    CSystemdListing clListing(this, tNames);
    while (auto pclService = clListing.pclNext()) {
        ptServices->push_back(std::move(pclService));
    }
    for (CServiceName& clName : tNames) { // there is a unit of that name, masked or unreadable
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
    if (!bSystemctlDone(L"daemon-reload")) { // not judged: a start that fails tells
        pclService->AddMissingStep(L"systemctl daemon-reload");
    }
    const std::wstring csEnable = L"enable " + clName.csAsked();
    if (bAutoStart && !bSystemctlDone(csEnable)) {
        if (CStopping::bMayGoOn()) { // systemd itself refuses
            clFile.TakeBack();
            return nullptr;
        }
        pclService->AddMissingStep(L"systemctl " + csEnable);
    }
    return pclService;
}

bool CServiceManager::bTakeBackRefused(const CService& clService)
{
    static constexpr const wchar_t* s_tRefused[] = {L"bad-setting", L"error", L"not-found", L"masked"};
    if (!bSystemd()) {
        return false; // a script can always be run
    }
    const int nErrno = errno;
    const std::wstring csLoadState =
        csAskSystemdProp("LoadState", clService.clName()).value_or(std::wstring());
    const bool bRefused =
        std::find(std::begin(s_tRefused), std::end(s_tRefused), csLoadState) != std::end(s_tRefused);
    if (bRefused) {
        CUnitFile(clService.clName()).TakeBack();
    }
    errno = nErrno;
    return bRefused;
}
