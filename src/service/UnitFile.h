#pragma once

#include "service/ServiceName.h"

#include <optional>
#include <string>
#include <string_view>

/// The units that an installation writes for systemd, and how they are read back.

/// Whether a unit with this command line (CProgram's) starts its program and a lookup then reads exactly that
/// program's path. False for a path that systemd would expand, refuse or show in another form.
bool bUnitReadsBack(const std::wstring& csCommandLine, const CServiceName& clName);

/// The text of a unit. The service is started with its own name as its last argument.
std::wstring csUnitText(const CServiceName& clName, std::wstring csDisplayName,
                        const std::wstring& csCommandLine, bool bRestartOnAbnormal);

/// Program of a unit file's only ExecStart line. Nothing when the file has no such line, or several, or when
/// the text after the program may be the rest of its path: anything but options without a slash.
std::optional<std::wstring> csProgramInUnit(std::string_view csText);

/// The unit file of one service: an installation writes it, and takes it back when systemd refuses it.
class CUnitFile
{
public:
    explicit CUnitFile(CServiceName clName);

    /// Writes the file; keeps what it held before for TakeBack. False with errno when that fails.
    bool bWrite(const std::wstring& csText);
    /// Restores what the file held before bWrite. A file that did not exist is deleted, after systemctl has
    /// removed its links. Keeps errno.
    void TakeBack();

private:
    CServiceName m_clName;
    std::wstring m_csPath;
    std::optional<std::string> m_csBefore;
};
