#pragma once

#include "service/ServiceName.h"

#include <optional>
#include <string>
#include <string_view>

/// What an installation writes for systemd, and how it is read back.

/// Whether a unit with this command line (CProgram's) starts its program, and a lookup then reads exactly
/// that program's path: systemd neither expands nor refuses it.
bool bUnitReadsBack(const std::wstring& csCommandLine, const CServiceName& clName);

/// The text of a unit. The service is started with its own name as its last argument.
std::wstring csUnitText(const CServiceName& clName, std::wstring csDisplayName,
                        const std::wstring& csCommandLine, bool bRestartOnAbnormal);

/// Program of the one ExecStart line of a unit file; nothing when there is none, or more than one, or when
/// its path may go on after a space: what follows it is not options without a slash.
std::optional<std::wstring> csProgramInUnit(std::string_view csText);

/// The file of one service's unit, as an installation writes it and takes it back.
class CUnitFile
{
public:
    explicit CUnitFile(CServiceName clName);

    bool bWrite(const std::wstring& csText);
    /// Puts back what the file held before bWrite. A file that was not there is deleted, its links by
    /// systemctl before. Keeps errno.
    void TakeBack();

private:
    CServiceName m_clName;
    std::wstring m_csPath;
    std::optional<std::string> m_csBefore;
};
