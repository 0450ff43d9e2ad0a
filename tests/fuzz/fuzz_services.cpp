// What tells of services: systemctl's output, init scripts, names, arguments of tools.

#include "service/CommandLine.h"
#include "service/InitScript.h"
#include "service/LanceProcessus.h"
#include "service/ServiceManagerUnix.h"
#include "service/ServiceName.h"
#include "service/SystemctlOutput.h"
#include "service/UnitFile.h"
#include "support/Conversion.h"
#include "Target.h"

#include <array>
#include <cstdint>

namespace {
bool bLiesIn(std::string_view csPart, std::string_view csWhole)
{
    return csPart.empty() || (csPart.data() >= csWhole.data() &&
                              csPart.data() + csPart.size() <= csWhole.data() + csWhole.size());
}

void Systemctl(std::string_view csOutput)
{
    const STUnitShown st = stReadShow(csOutput);
    Require(!st.csDescription || csOutput.find(*st.csDescription) != std::string_view::npos);
    Require(!st.csBinaryPath || csOutput.find(*st.csBinaryPath) != std::string_view::npos);
    Require(bLiesIn(csReadProperty(csOutput), csOutput));
    std::size_t nBlocks = 0; // bytes
    for (const std::string_view csBlock : tReadBlocks(csOutput)) {
        Require(bLiesIn(csBlock, csOutput) && csBlock.find("\n\n") == std::string_view::npos);
        Require(bLiesIn(csReadId(csBlock), csBlock));
        nBlocks += csBlock.size();
    }
    Require(nBlocks <= csOutput.size());
    for (const std::string_view csUnit : tReadListing(csOutput)) {
        Require(bLiesIn(csUnit, csOutput) && csUnit.find('\n') == std::string_view::npos);
        const CServiceName clName = CServiceName::s_clListed(csUnit);

        // No unit's name holds a NUL, which ends what is said, or whitespace, which is substituted in it.
        constexpr std::wstring_view csNotSaid(L"\0 \t", 3);
        const bool bSayable = clName.csText().find_first_of(csNotSaid) == std::wstring::npos;
        Require(clName.csAsked().empty() || !bSayable ||
                CServiceName::s_clSaid(clName.csText().c_str()) == clName);
    }
}

void Scripts(const std::string& csText)
{
    for (const char* pszKey : {"Name=\"", "Path=\""}) {
        for (const std::size_t nBuffer : {std::size_t{2}, std::size_t{80}, std::size_t{1000}}) {
            const STMarker st = stReadMarker(csText, pszKey, nBuffer);
            Require(!st.csValue || (st.bFound && st.csValue->size() < nBuffer));
        }
    }
    const STCommandLine stLine = stSplitCommandLine(csText);
    Require(stLine.csProgram.size() + stLine.csArguments.size() <= csText.size());
    (void)bScriptable(csText);
    (void)csProgramInUnit(csText);
    const std::optional<std::string> csStarted = csProgramStarted(csText, "DXCS-a");
    Require(!csStarted || csStarted == stProgramInScript(csText).csValue);
    const CServiceName clName = CServiceName::s_clSaid(L"DXCS-a");
    if (const std::wstring csLine = csFromUTF8(csText); bUnitReadsBack(csLine, clName)) {
        const auto csProgram = csProgramInUnit(csToUTF8(csUnitText(clName, L"", csLine, false)));
        Require(!csProgram || *csProgram == CProgram::s_clOf(csLine).csPath());
    }
}

void Names(const std::wstring& csName)
{
    const CServiceName clName = CServiceName::s_clSaid(csName.c_str());
    Require(clName.csScript().find_first_of(L" \t/.") == std::wstring::npos);
    Require(clName.csAsked().find_first_of(L" \t\"*?[\n\r") == std::wstring::npos); // one word
    if (clName.bInstallable()) { // then it is found again by what is listed
        const CServiceName clListed = CServiceName::s_clListed(csToUTF8(clName.csAsked()));
        Require(clListed == clName && clListed.csRegisteredAs(csName.c_str()) == clName.csText());
    }
    if (bInertName(csName)) {
        Require(csName.find_first_of(L" \t\"'`$;&|<>()\\\n/") == std::wstring::npos && csName[0] != L'-');
    }
    (void)bInertWords(csName);
}

void Arguments(std::string csLine)
{
    csLine = csLine.c_str();
    std::string csCopy = csLine;
    std::array<char*, 5> tArguments{};
    const int nCount = nSplitArguments(csCopy.data(), tArguments.data(), 5);
    Require(nCount >= 0 && nCount <= 5);
    for (int n = 0; n < nCount; ++n) {
        const char* psz = tArguments[static_cast<std::size_t>(n)];
        Require(psz >= csCopy.data() && psz + std::string_view(psz).size() <= csCopy.data() + csCopy.size());
        Require(csLine.find(psz) != std::string::npos);
    }
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    CServiceManager::ms_eDistri = DISTRI_SYSTEMD; // where names are escaped
    const std::string csText(csInput(pBytes, nBytes));
    Systemctl(csText);
    Scripts(csText);
    Names(csFromUTF8(csText));
    Arguments(csText);
    return 0;
}
