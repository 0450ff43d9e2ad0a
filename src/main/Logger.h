#pragma once

#include "support/LogMode.h"
#include "support/XError.h"

#include <cstdarg>
#include <string>

/// Where the daemon reports. Every add operation may be called by any thread; bSetMode must not run while
/// another thread logs.
class ILogger
{
public:
    using eMODE = ELogMode;
    /// A syslog level, 0 emergency to 7 debug.
    enum ePRIORITY : int
    {
        PRIORITY_CRITICAL = 2,
        PRIORITY_ERROR = 3,
        PRIORITY_INFO = 6,
    };

    /// Modes other than LOG_MODE_SYSTEM take a wide file path as the next argument. Always true.
    virtual bool bSetMode(eMODE eMode, ...) = 0;
    /// The format is the message formatter's (%1, %2!u!...), and what comes out of it is syslog's format:
    /// text from outside is doubled at "%" by the caller.
    virtual void AddLog(ePRIORITY ePriority, const wchar_t* pszFormat, ...) = 0;
    /// Events and details are for the product's other services.
    virtual void AddLogEvent(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, ...) = 0;
    /// Logs the first detail only, as the format; intended.
    virtual void AddLogDetail(ePRIORITY ePriority, int nEvent, const wchar_t** ppszDetails, int nDetails) = 0;
    virtual ~ILogger() = default;
};

/// All that an error tells, as an entry has it: one item a line.
std::wstring csCause(const CXError& clError);
/// One entry at priority 2: a text from outside, unchanged; or the cause of a failure.
void LogText(ILogger& clLogger, const std::wstring& csText);
void LogCause(ILogger& clLogger, const CXError& clError);

/// Writes to the system log (mode 1, from construction on). In file mode every message is dropped: the path
/// is only kept; mode 0 is silent.
class CLogger : public ILogger
{
public:
    CLogger();
    bool bSetMode(eMODE eMode, ...) override;
    void AddLog(ePRIORITY ePriority, const wchar_t* pszFormat, ...) override;
    void AddLogEvent(ePRIORITY ePriority, int nEvent, const wchar_t* pszFormat, ...) override;
    void AddLogDetail(ePRIORITY ePriority, int nEvent, const wchar_t** ppszDetails, int nDetails) override;
    /// Logs, at priority 3, a printf-style text followed by the number and text of the errno at the call.
    void AddLogSystemError(const wchar_t* pszFormat, ...);

private:
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
