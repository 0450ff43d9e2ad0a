// Which variables of the daemon's environment a tool gets.

#include "service/ToolEnvironment.h"

#include "service/Systemctl.h"
#include "support/Conversion.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <unistd.h>

namespace {
// Not constant, only because exec takes pointers to plain characters.
char s_szNoColours[] = "SYSTEMD_COLORS=0";
char s_szNoPager[] = "SYSTEMD_PAGER=";
char s_szPlainTexts[] = "LC_ALL=C.UTF-8";

/// Whether systemctl reads the variable, and we alone choose its value. LC_ALL overrides every other LC_
/// variable and LANG; only LANGUAGE could still choose a translation. With POSIXLY_CORRECT an option after
/// the verb would be taken for a unit.
bool bOurs(std::string_view csVariable)
{
    constexpr std::string_view tPrefixes[] = {"SYSTEMD_", "LC_ALL=", "LANGUAGE=", "POSIXLY_CORRECT="};
    return std::ranges::any_of(
        tPrefixes, [csVariable](std::string_view csPrefix) { return csVariable.starts_with(csPrefix); });
}
} // namespace

std::vector<char*> tToolEnvironment(const std::string& csProgram)
{
    const bool bSystemctl = csProgram == csToUTF8(g_szSystemctl);

    std::vector<char*> tEnvironment;
    for (char** ppsz = environ; *ppsz != nullptr; ++ppsz) {
        if (!bSystemctl || !bOurs(*ppsz)) {
            tEnvironment.push_back(*ppsz);
        }
    }

    if (bSystemctl) {
        tEnvironment.insert(tEnvironment.end(), {s_szNoColours, s_szNoPager, s_szPlainTexts});
    }
    tEnvironment.push_back(nullptr);
    return tEnvironment;
}
