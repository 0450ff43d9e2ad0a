#include "manager/SetupManager.h"

#include "config/Config.h"
#include "config/WinApi.h"
#include "manager/FailedListing.h"
#include "support/accesdllres.h"
#include "support/Conversion.h"
#include "support/DescriptorLimit.h"
#include "support/DiskFile.h"
#include "support/FileVersion.h"
#include "support/ManagerNames.h"
#include "support/Stopping.h"
#include "support/SystemCall.h"
#include "support/SystemInfo.h"
#include "support/WinApi.h"
#include "vm/DLLExecution.h"
#include "vm/vmload.h"

#include <array>
#include <cerrno>
#include <stdexcept>
#include <tuple>
#include <unistd.h>

CSetupManager* gpclSetupManager = nullptr;

namespace {
constexpr std::size_t s_nPrefixLength = std::size(g_szServerPrefix) - 1;
constexpr std::size_t s_nPortText = 200; ///< characters read of an access port
} // namespace

CSetupManager::CSetupManager() : m_clRemote(&m_clServiceManager)
{
    CStopping::Reset(); // the stop of an earlier manager of this process must not end this one
    m_clPipeServer.SetManager(this);
    m_clMainLoop.Init(0, 1);

    SetTooLargeReport([this](const std::wstring& csFile) { _LogTooLarge(csFile); }); // before the first read
    if (const CConfig clConfig(nullptr); clConfig.bRestartOnFailed() != 0) {
        m_pclRestart = std::make_unique<CRestartOnFailed>(&m_clServiceManager, clConfig.dwCheckPeriod());
    }
}

CSetupManager::~CSetupManager()
{
    __TermMainLoop(); // if MainLoop has not been left: the threads use the members
    SetTooLargeReport(nullptr);
    CStopping::Reset();
    if (m_clRuntime.bLoaded()) {
        CBaseExecutionDLL::s_TermineMoiMeme(m_clRuntime.hGetHandle());
        TermVM(0);
        m_clRuntime.Unload();
    }
}

bool CSetupManager::bInitVM()
{
    CXError clError;
    const std::wstring csDirectory = CDiskFile::csDirectory(GetModuleFileNameW());
    if (m_clRuntime.bLoad(csDirectory + L"zt240vm64.so", &clError)) {
        void* hLibrary = m_clRuntime.hGetHandle();
        if (::bInitVM(hLibrary, &clError)) {
            std::ignore = bCheminDLL(nullptr); // required, but only the two other calls decide
            if (CBaseExecutionDLL::s_bInitialiseMoiMeme(hLibrary, &clError)) {
                return true;
            }
        }
    }
    _LogError(clError);
    return false;
}

bool CSetupManager::bInit()
{
    _HInfoServeur();
    if (!m_clServiceManager.bInit(nullptr, 0)) {
        return false;
    }

    // The TCP server's port keeps a second manager out, so it comes before whatever two must not share.
    CXError clError;
    if (m_clServer.bInit(g_wManagerPort, &clError) && m_clPingEcho.bInit(g_wManagerPort, &clError)) {
        return true;
    }
    LogCause(m_clLogger, clError);
    return false;
}

bool CSetupManager::bStart()
{
    const uid_t nUser = ::geteuid();
    std::ignore = ::setreuid(nUser, nUser); // from now on one identity; a refusal changes nothing
    RaiseDescriptorLimit();
    CStopping::Prepare(); // not earlier: a daemon that detaches closes every descriptor
    if (!bInit()) {
        return false;
    }

    // A failure leaves running what has started before it; main ends that with __TermMainLoop.
    try {
        m_clServer.Start();
        if (m_pclRestart != nullptr) {
            m_pclRestart->xStart();
        }
        return m_clPingEcho.bStart() && _bStartPipe();
    } catch (const CXError& clError) {
        LogCause(m_clLogger, clError);
        return false;
    }
}

bool CSetupManager::_bStartPipe()
{
    if (m_clPipeServer.bStart()) {
        return true;
    }
    CXError clError;
    std::ignore = bFail(&clError, L"create", csFromUTF8(g_szManagerPipe)); // takes errno; always false
    LogCause(m_clLogger, clError);
    return false;
}

void CSetupManager::MainLoop()
{
    m_clMainLoop.Wait();
    __TermMainLoop();
}

void CSetupManager::Stop()
{
    CStopping::Ask();
    __StopMainLoop();
}

void CSetupManager::__StopMainLoop()
{
    m_clMainLoop.__Post(0);
}

void CSetupManager::__TermMainLoop()
{
    CStopping::Ask(); // whoever waits for a lock or a tool leaves now; else the threads could not end
    m_clServer.Stop();
    m_clPingEcho.Stop();
    if (m_pclRestart != nullptr) {
        m_pclRestart->Stop();
    }
    m_clPipeServer.bStop();
}

void CSetupManager::_HInfoServeur()
{
    _AddVIInfo();
    _AddOSInfo();
    _AddCPU_RAM_Info();
}

void CSetupManager::_AddVIInfo()
{
    CFileVersion clVersion;
    std::wstring csVersion;
    if (!clVersion.bLoad(GetModuleFileNameW()) ||
        !clVersion.bGetStringValue(L"\\StringFileInfo\\000004E4\\VersionVI", &csVersion)) {
        csVersion = L"?";
    }
    m_csHostInfo += csVersion + L"\t";
}

void CSetupManager::_AddOSInfo()
{
    ::AddOSInfo(&m_csHostInfo);
    m_csHostInfo += L"\t";
}

void CSetupManager::_AddCPU_RAM_Info()
{
    ::AddCPUInfo(&m_csHostInfo);

    constexpr unsigned int nBytesPerMo = 1024 * 1024;
    tagMEMORYSTATUSEX stMemory{};
    stMemory.dwLength = sizeof stMemory;
    GlobalMemoryStatusEx(&stMemory);
    // "Mo", the French word for mebibytes, in every language: clients rely on it.
    m_csHostInfo += L"\t" + std::to_wstring(stMemory.qwTotalPhys / nBytesPerMo) + L" Mo";
}

void CSetupManager::AddServeurList(CTString* pcsReply)
{
    *pcsReply += m_clListing.xcsGet([this] { return _csMakeServeurList(); });
}

std::wstring CSetupManager::_csMakeServeurList()
{
    const CServiceGuard clGuard = clLockServices();
    CTString csServers;

    // A listing by the prefix would miss the default server, whose service may have none.
    CServiceListing clListing(&m_clServiceManager, g_szServerPrefix, g_szDefaultServer);
    while (const auto pclService = clListing.pclNext()) {
        __AddServeurList(clGuard, *pclService, &csServers);
    }

    CStopping::xCheck(); // a listing that the stop cut short has not failed
    if (clListing.bFailed()) {
        _FailListing(clListing.nError());
    }
    return csServers;
}

void CSetupManager::_FailListing(int nError)
{
    LogFailedListing(nError);
    throw std::runtime_error("the services cannot be listed");
}

std::wstring CSetupManager::s_csServersConfig(const std::wstring& csExecutable)
{
    return CDiskFile::csDirectory(csExecutable) + L"DXConf.ini";
}

std::wstring CSetupManager::s_csAccessPort(CService& clService)
{
    constexpr auto stSetting = settings::AccessPort;
    std::wstring csDefault = std::to_wstring(stSetting.nDefault);
    const std::wstring csExecutable = clService.csGetExecutable();
    if (csExecutable.empty()) { // no folder, so no configuration either
        return csDefault;
    }

    const std::wstring csFile = s_csServersConfig(csExecutable);
    std::array<wchar_t, s_nPortText + 1> tPort{};
    GetPrivateProfileString(stSetting.pszSection, stSetting.pszKey, csDefault.c_str(), tPort.data(),
                            tPort.size(), csFile.c_str());
    return tPort.data();
}

void CSetupManager::__AddServeurList(const CServiceGuard&, CService& clService, CTString* pcsReply)
{
    if (clService.pszBinaryPathName() == nullptr) { // no program, so no server to connect to
        return;
    }

    // The prefix's length is dropped from every name, the default server's included: clients rely on the
    // empty name that this leaves.
    const std::wstring csName = clService.clName().csShownAs(clService.pszGetDisplayName());
    *pcsReply +=
        L"\t" + csName.substr(std::min(csName.size(), s_nPrefixLength)) + L"\t" + s_csAccessPort(clService);
}

void CSetupManager::_LogError(const CXError& clError)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_START_FAILED, &csText, g_szManagerService);
    _LogText(csText + L"\n" + csCause(clError));
}

void CSetupManager::_LogTooLarge(const std::wstring& csFile)
{
    CTString csText;
    DLLRES_bFormatMessage(&g_stMyModule, MSG_SETTINGS_TOO_LARGE, &csText, csFile.c_str());
    _LogText(csText);
}

void CSetupManager::_LogText(const std::wstring& csText)
{
    LogText(m_clLogger, csText);
}
