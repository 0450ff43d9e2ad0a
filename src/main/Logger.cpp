// The log: the message formatter in front of syslog.

#include "main/Logger.h"

#include "support/Conversion.h"
#include "support/WinApi.h"
#include "support/XYString.h"

#include <cerrno>
#include <syslog.h>

std::wstring csCause(const CXError& clError)
{
    constexpr unsigned int nEverything = 0x80000FFF; // every kind of information, also kinds to come
    return csReplaceAll<wchar_t>(clError.StringDump(nEverything), L"\r\n", L"\n");
}

void LogText(ILogger& clLogger, const std::wstring& csText)
{
    clLogger.AddLog(ILogger::PRIORITY_CRITICAL, L"%1!s!", csEscapePercent(csText).c_str());
}

void LogCause(ILogger& clLogger, const CXError& clError)
{
    LogText(clLogger, csCause(clError));
}

CLogger::CLogger()
{
    CLogger::bSetMode(LOG_MODE_SYSTEM);
}

bool CLogger::bSetMode(eMODE eMode, ...)
{
    __CloseLogFile();
    m_eMode = eMode;
    m_pfnWriter = eMode == LOG_MODE_SYSTEM ? &CLogger::__AddLogSystem : &CLogger::__AddLogFile;

    if (eMode != LOG_MODE_SYSTEM) {
        va_list pArgs;
        // clang warns that an enumeration may be narrower than int; this one is not.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wvarargs"
        va_start(pArgs, eMode);
#pragma GCC diagnostic pop
        m_csFile = va_arg(pArgs, const wchar_t*);
        va_end(pArgs);
    }
    return true;
}

void CLogger::__CloseLogFile()
{
    m_csFile.clear();
}

void CLogger::AddLog(ePRIORITY ePriority, const wchar_t* pszFormat, ...)
{
    if (m_eMode == LOG_MODE_OFF) {
        return;
    }

    va_list pArgs;
    va_start(pArgs, pszFormat);
    (this->*m_pfnWriter)(ePriority, -1, pszFormat, &pArgs, nullptr, 0); // -1: no event
    va_end(pArgs);
}

void CLogger::AddLogEvent(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, ...)
{
    if (m_eMode == LOG_MODE_OFF) {
        return;
    }

    va_list pArgs;
    va_start(pArgs, pszFormat);
    (this->*m_pfnWriter)(ePriority, nEvent, pszFormat, &pArgs, nullptr, 0);
    va_end(pArgs);
}

void CLogger::AddLogDetail(ePRIORITY ePriority, int nEvent, const wchar_t** ppszDetails, int)
{
    if (m_eMode != LOG_MODE_OFF) {
        AddLogEvent(ePriority, nEvent, ppszDetails[0]);
    }
}

void CLogger::AddLogSystemError(const wchar_t* pszFormat, ...)
{
    const int nErrno = errno; // before anything below changes it

    CTString csText;
    va_list pArgs;
    va_start(pArgs, pszFormat);
    csText.FormatV(pszFormat, pArgs);
    va_end(pArgs);

    csText += L" , error " + std::to_wstring(nErrno) + L", " + csSystemMessage(nErrno);
    AddLog(PRIORITY_ERROR, csText.c_str());
}

/// The finished text is syslog's format: whoever logs text from outside has doubled its percent signs.
void CLogger::__AddLogSystem(ePRIORITY ePriority, int, const wchar_t* pszFormat, va_list* pArgs,
                             const wchar_t**, int)
{
    const std::wstring csText =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_STRING, pszFormat, 0, pArgs);

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
    ::syslog(ePriority, csToUTF8(csText).c_str());
#pragma GCC diagnostic pop
}

void CLogger::__AddLogFile(ePRIORITY, int, const wchar_t*, va_list*, const wchar_t**, int)
{
    // File mode drops every message: clients rely on it.
}
