// The systemd back end: drives systemctl, reads what it prints, writes unit files.

#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"
#include "service/Systemctl.h"
#include "service/SystemctlOutput.h"
#include "service/SysVFamily.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"

#include <algorithm>
#include <cerrno>
#include <vector>

namespace {
/// A systemctl that hangs when the daemon starts must not keep it from starting for ever.
constexpr unsigned int s_nDetectionLimitMs = 30'000;

std::optional<std::wstring> csDecode(const std::optional<std::string>& csBytes)
{
    return csBytes ? std::optional(csFromUTF8(*csBytes)) : std::nullopt;
}

std::wstring csUnitDirectory()
{
    constexpr wchar_t szUsual[] = L"/lib/systemd/system/";
    return CDiskFile::bExists(szUsual) ? szUsual : L"/usr/lib/systemd/system/";
}

/// The install section stands ahead of the service section; intended. The service is started with its own
/// name as its last argument.
std::wstring csUnitText(const std::wstring& csUnit, std::wstring csDisplayName,
                        const std::wstring& csBinaryPath, bool bRestartOnAbnormal)
{
    // A line end would write lines of its own into the unit.
    std::replace(csDisplayName.begin(), csDisplayName.end(), L'\n', L' ');
    return L"[Unit]\n"
           L"Description=" +
           csDisplayName +
           L"\n"
           L"After=network.target\n"
           L"[Install]\n"
           L"WantedBy=multi-user.target\n"
           L"[Service]\n"
           L"Type=forking\n"
           L"ExecStart=" +
           csBinaryPath + L" " + csUnit +
           L"\n"
           L"PIDFile=/var/run/" +
           csUnit + L".pid\n" + (bRestartOnAbnormal ? L"Restart=on-abnormal\n" : L"");
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
    return csAskSystemdProp(pszProperty, pszName).value_or(std::wstring());
}

std::optional<std::wstring> CServiceManager::csAskSystemdProp(const char* pszProperty, const wchar_t* pszName)
{
    const std::optional<std::string> csAnswer =
        csAskSystemctl({L"--property=" + csFromUTF8(pszProperty) + L" show " + pszName, pszProperty});
    if (!csAnswer) {
        return std::nullopt;
    }
    const std::string_view csLine = csPropertyLine(*csAnswer, pszProperty);
    return csFromUTF8(csReadProperty(csLine.empty() ? *csAnswer : csLine));
}

std::unique_ptr<CService> CServiceManager::__pclGetServiceSystemd(const std::wstring& csName)
{
    std::wstring csUnit;
    if (!bUnitName(csName, &csUnit)) {
        errno = ENOENT;
        return nullptr;
    }
    std::wstring csArguments = L"--property=Description,ExecStart,Type show " + csUnit;
    // In a lookup, and nowhere else, these two stand for blanks; intended.
    std::replace_if(
        csArguments.begin(), csArguments.end(), [](wchar_t c) { return c == L';' || c == L'|'; }, L' ');
    const std::optional<std::string> csAnswer = csAskSystemctl({csArguments, "Type"});
    if (!csAnswer) {
        return nullptr;
    }
    const STUnitShown stShown = stReadShow(*csAnswer);
    if (!stShown.bExists) {
        errno = ENOENT;
        return nullptr;
    }
    std::optional<std::wstring> csBinaryPath = csDecode(stShown.csBinaryPath);
    // A unit that systemd made of an init script runs the script: the server's program stands inside it.
    const bool bFromScript = csBinaryPath && csBinaryPath->starts_with(g_szScriptDirectory);
    auto pclService = std::make_unique<CService>(this, csUnit, csDecode(stShown.csDescription),
                                                 bFromScript ? std::nullopt : std::move(csBinaryPath));
    if (bFromScript && !pclService->bReadScript() && errno != ENOENT) {
        return nullptr;
    }
    return pclService;
}

std::unique_ptr<CServiceEnumeration> CServiceManager::__pclEnumServiceSystemd(const std::wstring& csPrefix)
{
    const std::optional<std::string> csAnswer = csAskSystemctl(stListUnits());
    if (!csAnswer) {
        return nullptr;
    }
    // All units are listed and picked here: a pattern would be read by systemctl, whatever it holds.
    const std::wstring csStart = csScriptName(csPrefix);
    std::vector<std::unique_ptr<CService>> tServices;
    for (const std::string_view csListed : tReadListing(*csAnswer)) {
        const std::wstring csName = csUnitFromListing(csListed);
        if (!csName.starts_with(csStart)) {
            continue;
        }
        if (auto pclService = __pclGetServiceSystemd(csName)) {
            tServices.push_back(std::move(pclService));
        } else if (errno != ENOENT) { // not known is not gone
            return nullptr;
        }
    }
    return std::make_unique<CServiceEnumeration>(std::move(tServices));
}

std::unique_ptr<CService> CServiceManager::__pclInstallSystemd(const std::wstring& csName,
                                                               const std::wstring& csDisplayName,
                                                               const std::wstring& csBinaryPath,
                                                               bool bAutoStart, bool bRestartOnAbnormal)
{
    std::wstring csUnit;
    // A line end in the command line would write lines of its own into the unit.
    if (!bUnitName(csName, &csUnit) || !bWritableInUnit(csUnit) ||
        csBinaryPath.find_first_of(L"\r\n") != std::wstring::npos) {
        errno = EINVAL;
        return nullptr;
    }
    const std::wstring csText = csUnitText(csUnit, csDisplayName, csBinaryPath, bRestartOnAbnormal);
    if (!CDiskFile::bWriteFile(csUnitDirectory() + csUnitFileName(csUnit) + L".service", csToUTF8(csText))) {
        return nullptr;
    }
    auto pclService = std::make_unique<CService>(this, csUnit, csDisplayName, csBinaryPath);
    // Outcomes are not judged: a start that fails tells.
    for (const std::wstring& csStep : {std::wstring(L"daemon-reload"), L"enable " + csUnit}) {
        if ((bAutoStart || !csStep.starts_with(L"enable ")) && !bSystemctlDone(csStep)) {
            pclService->AddMissingStep(L"systemctl " + csStep);
        }
    }
    return pclService;
}
