#pragma once

#include "support/LogMode.h"
#include "support/XError.h"

#include <cstdarg>
#include <string>

/// Where the daemon reports what happens. Any thread may call the Add operations; bSetMode must not run while
/// another thread logs.
class ILogger
{
public:
    using eMODE = ELogMode;
    /// A syslog level, from 0 (emergency) to 7 (debug).
    enum ePRIORITY : int
    {
        PRIORITY_CRITICAL = 2,
        PRIORITY_ERROR = 3,
        PRIORITY_INFO = 6,
    };

    /// Every mode but LOG_MODE_SYSTEM, LOG_MODE_OFF included, needs a wide file path as the next argument,
    /// not null. Always true.
    virtual bool bSetMode(eMODE eMode, ...) = 0;
    /// The format is the message formatter's (%1, %2!u!...), and its result is used as syslog's format: the
    /// caller doubles every "%" of text from outside.
    virtual void AddLog(ePRIORITY ePriority, const wchar_t* pszFormat, ...) = 0;
    /// For the product's other services: the event number is ignored.
    virtual void AddLogEvent(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, ...) = 0;
    /// Logs only the first detail, as the format: clients rely on it. There must be at least one.
    virtual void AddLogDetail(ePRIORITY ePriority, int nEvent, const wchar_t** ppszDetails, int nDetails) = 0;
    virtual ~ILogger() = default;
};

/// All that an error says, in the form of a log entry: one item per line.
std::wstring csCause(const CXError& clError);
/// Logs a text from outside, unchanged, at priority 2.
void LogText(ILogger& clLogger, const std::wstring& csText);
/// Logs the cause of a failure at priority 2.
void LogCause(ILogger& clLogger, const CXError& clError);

/// A new object is in LOG_MODE_SYSTEM and writes to the system log. LOG_MODE_OFF is silent. LOG_MODE_FILE
/// keeps the path and drops every message: clients rely on it.
class CLogger : public ILogger
{
public:
    CLogger();
    bool bSetMode(eMODE eMode, ...) override;
    void AddLog(ePRIORITY ePriority, const wchar_t* pszFormat, ...) override;
    void AddLogEvent(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, ...) override;
    void AddLogDetail(ePRIORITY ePriority, int nEvent, const wchar_t** ppszDetails, int nDetails) override;
    /// Logs, at priority 3, a printf-style text followed by the number and text of the errno at the call. The
    /// text then becomes AddLog's format: no "%" may be left in it.
    void AddLogSystemError(const wchar_t* pszFormat, ...);

private:
    /// Writes one entry in one mode. All writers take the same arguments; nEvent is -1 for an entry without
    /// event, and nobody passes details any more.
    using PFNWriter = void (CLogger::*)(ePRIORITY, int nEvent, const wchar_t* pszFormat, va_list* pArgs,
                                        const wchar_t** ppszDetails, int nDetails);
    void __AddLogSystem(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, va_list* pArgs,
                        const wchar_t** ppszDetails, int nDetails);
    void __AddLogFile(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, va_list* pArgs,
                      const wchar_t** ppszDetails, int nDetails);
    void __CloseLogFile();

    eMODE m_eMode = LOG_MODE_OFF;
    std::wstring m_csFile;
    PFNWriter m_pfnWriter = &CLogger::__AddLogFile;
};
