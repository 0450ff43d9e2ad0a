// What the system tells of itself: /proc, release files, and the version note of an executable.

#include "support/FileVersion.h"
#include "support/SystemFiles.h"
#include "Target.h"
#include "tools/TempDir.h"

#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pBytes, std::size_t nBytes)
{
    const std::string csText(csInput(pBytes, nBytes));
    const STCpuInfo stCpu = stParseCpuInfo(csText);
    Require(stCpu.csModel.size() <= 200);
    tagMEMORYSTATUSEX stMemory{};
    ParseMemInfo(csText, &stMemory);

    STLinuxNameAndVersion stName;
    (void)readEtcFile(csText, {"ID=", "VERSION_ID=", "PRETTY_NAME="}, &stName);
    // The text stands in every second file that is looked for.
    bool bThere = false;
    STLinuxNameAndVersion stFound;
    (void)bRecogniseDistribution(
        [&](const std::string&) { return (bThere = !bThere) ? std::optional(csText) : std::nullopt; },
        &stFound);

    static const CTempDir s_clDirectory;
    (void)s_clDirectory.csWrite("program", csText);
    CFileVersion clVersion;
    if (clVersion.bLoad(s_clDirectory.csWidePath("program"))) {
        std::wstring csValue;
        (void)clVersion.bGetStringValue(L"\\StringFileInfo\\000004E4\\FileVersion", &csValue);
        Require(csValue.size() <= nBytes);
    }
    return 0;
}
