// Writes the unit of a service, and makes sure beforehand that a lookup will read the same program from it.

#include "service/UnitFile.h"

#include "service/CommandLine.h"
#include "service/Systemctl.h"
#include "service/SystemctlOutput.h"
#include "support/Conversion.h"
#include "support/DiskFile.h"
#include "support/TextLines.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace {
std::wstring csUnitDirectory()
{
    constexpr wchar_t szUsual[] = L"/lib/systemd/system/";
    return CDiskFile::bExists(szUsual) ? szUsual : L"/usr/lib/systemd/system/";
}

/// A program's path as systemd shows it: doubled slashes are one, "." between slashes is dropped.
std::string csSimplified(const std::string& csPath)
{
    std::string csResult;
    for (std::size_t n = 0; n < csPath.size();) {
        const std::size_t nEnd = std::min(csPath.find('/', n), csPath.size());
        const std::string csPart = csPath.substr(n, nEnd - n);
        csResult += csPart.empty() || csPart == "." ? "" : "/" + csPart;
        n = nEnd + 1;
    }
    return csResult;
}

/// Whether systemd gives the character a meaning in a program's path, whatever the quoting, or refuses it
/// there.
bool bSpecialToSystemd(char c)
{
    return static_cast<unsigned char>(c) < ' ' ||
           std::string_view("\x7F%$\"'\\").find(c) != std::string_view::npos;
}

/// Whether the text after a program is certainly not the rest of its path. Units of older releases hold paths
/// with spaces without quotes, where the program seems to end at the first space.
bool bOnlyOptions(std::string_view csArguments)
{
    SkipWhitespace(&csArguments);
    return csArguments.empty() ||
           (csArguments.starts_with("--") && csArguments.find_first_of("/\\%") == std::string_view::npos);
}

/// The line that "show" prints for a unit with this command line, as far as it is read.
std::string csShown(const STCommandLine& stCommand, const CServiceName& clName)
{
    return "ExecStart={ path=" + csSimplified(stCommand.csProgram) + " ; argv[]=" + stCommand.csProgram +
           " " + stCommand.csArguments + " " + csToUTF8(clName.csRegistry()) + " ; ignore_errors=no ; }\n";
}
} // namespace

bool bUnitReadsBack(const std::wstring& csCommandLine, const CServiceName& clName)
{
    // The command line must survive UTF-8 and stay on one line of the unit.
    const std::string csBytes = csToUTF8(csCommandLine);
    if (csFromUTF8(csBytes) != csCommandLine || csBytes.find_first_of("\r\n") != std::string::npos ||
        csBytes.find('\0') != std::string::npos) {
        return false;
    }

    // systemd reads quoted and unquoted parts side by side as one word, so a space must follow the quotes.
    const STCommandLine stCommand = stSplitCommandLine(csBytes);
    if (csBytes.starts_with('"') && !stCommand.csArguments.empty() &&
        !stCommand.csArguments.starts_with(' ')) {
        return false;
    }

    // The program must be a plain path.
    const std::wstring csProgram = csFromUTF8(stCommand.csProgram);
    if (!CProgram::s_clAt(csProgram).bWholePath() ||
        std::ranges::any_of(stCommand.csProgram, bSpecialToSystemd)) {
        return false;
    }

    // The program is read twice, and both must give this path: by a later lookup from what "show" prints, and
    // by the installation from the command line.
    const STUnitShown stShown = stReadShow(csShown(stCommand, clName));
    const std::wstring csBinaryPath = csFromUTF8(stShown.csBinaryPath.value_or(""));
    const std::string csLookedUp =
        stShown.csExecutable.value_or(csToUTF8(CProgram::s_clOf(csBinaryPath).csPath()));
    return csLookedUp == stCommand.csProgram && CProgram::s_clOf(csCommandLine).csPath() == csProgram;
}

std::wstring csUnitText(const CServiceName& clName, std::wstring csDisplayName,
                        const std::wstring& csCommandLine, bool bRestartOnAbnormal)
{
    // A newline would write lines of its own into the unit.
    std::ranges::replace(csDisplayName, L'\n', L' ');

    // The install section stands before the service section; clients rely on it.
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
           csCommandLine + L" " + clName.csRegistry() +
           L"\n"
           L"PIDFile=/var/run/" +
           clName.csRegistry() + L".pid\n" + (bRestartOnAbnormal ? L"Restart=on-abnormal\n" : L"");
}

std::optional<std::wstring> csProgramInUnit(std::string_view csText)
{
    constexpr std::string_view csKey = "ExecStart=";
    std::optional<std::wstring> csProgram;
    int nLines = 0;

    // Of several such lines systemd may run one or all, which depends on the unit's type: then none is taken.
    ForEachLine(csText, [&](std::string_view csLine) {
        if (csLine.starts_with(csKey)) {
            ++nLines;
            const STCommandLine st = stSplitCommandLine(csLine.substr(csKey.size()));
            csProgram = bOnlyOptions(st.csArguments) ? std::optional(csFromUTF8(st.csProgram)) : std::nullopt;
        }
    });

    return nLines == 1 ? csProgram : std::nullopt;
}

CUnitFile::CUnitFile(CServiceName clName)
    : m_clName(std::move(clName)), m_csPath(csUnitDirectory() + m_clName.csUnitFile())
{}

bool CUnitFile::bWrite(const std::wstring& csText)
{
    if (std::string csBefore; CDiskFile::bReadFile(m_csPath, &csBefore)) {
        m_csBefore = std::move(csBefore);
    }
    return CDiskFile::bWriteFile(m_csPath, csToUTF8(csText));
}

void CUnitFile::TakeBack()
{
    const int nErrno = errno; // says why the unit is taken back

    if (m_csBefore) {
        std::ignore = CDiskFile::bWriteFile(m_csPath, *m_csBefore);
    } else {
        // First, as systemctl finds the links of a unit by the file's install section.
        std::ignore = bSystemctlDone(L"disable " + m_clName.csAsked());
        std::ignore = CDiskFile::bDelete(m_csPath);
    }
    std::ignore = bSystemctlDone(L"daemon-reload");

    errno = nErrno;
}
