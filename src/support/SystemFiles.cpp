#include "support/SystemFiles.h"

#include "support/TextLines.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace {
/// Bytes of a line that count. Clients have always seen a longer model name cut there.
constexpr std::size_t s_nMaxCpuLine = 200;
constexpr std::size_t s_nMaxMemLine = 256;

/// Takes a number, with the spaces and tabs before it, off the front. None when no number is there, or one
/// that is too large for the type.
template <class TNumber>
std::optional<TNumber> nTakeNumber(std::string_view& csText)
{
    SkipWhitespace(&csText);
    TNumber nValue = 0;
    const auto [pszEnd, eError] = std::from_chars(csText.data(), csText.data() + csText.size(), nValue);
    if (eError != std::errc()) {
        return std::nullopt;
    }
    csText.remove_prefix(static_cast<std::size_t>(pszEnd - csText.data()));
    return nValue;
}

/// Reads "processor : 3" and "model name : ..."; any text may stand between the name and the colon.
void ParseCpuLine(std::string_view csLine, STCpuInfo* pstInfo)
{
    const std::size_t nColon = csLine.find(':');
    if (nColon == csLine.npos) {
        return;
    }

    std::string_view csValue = csLine.substr(nColon + 1);
    SkipWhitespace(&csValue);

    if (bBeginsWith(csLine.substr(0, nColon), "processor")) {
        const auto nNumber = nTakeNumber<unsigned int>(csValue);
        if (nNumber && *nNumber < UINT32_MAX) { // plus one must fit
            pstInfo->nCount = std::max(pstInfo->nCount, *nNumber + 1);
        }
    } else if (bBeginsWith(csLine.substr(0, nColon), "model name")) {
        pstInfo->csModel = csValue;
    }
}

/// Reads nCount numbers after a word at the line's beginning; false when the word or one of them is missing.
template <std::size_t nCount>
bool bNumbersAfter(std::string_view csLine, std::string_view csWord,
                   std::array<std::uint64_t, nCount>* ptNumbers)
{
    if (!csLine.starts_with(csWord)) {
        return false;
    }

    csLine.remove_prefix(csWord.size());
    for (std::uint64_t& qw : *ptNumbers) {
        const auto qwNumber = nTakeNumber<std::uint64_t>(csLine);
        if (!qwNumber) {
            return false;
        }
        qw = *qwNumber;
    }

    return true;
}

/// Takes over what a line says. Each line begins with one of the words below, or with none.
void ParseMemLine(std::string_view csLine, tagMEMORYSTATUSEX* pst)
{
    struct STField
    {
        std::string_view csWord;
        std::uint64_t tagMEMORYSTATUSEX::*pqw;
        bool bAdd;
    };
    static constexpr STField s_tFields[] = {
        {"MemTotal:", &tagMEMORYSTATUSEX::qwTotalPhys, false},
        {"MemFree:", &tagMEMORYSTATUSEX::qwAvailPhys, false},
        {"SwapTotal:", &tagMEMORYSTATUSEX::qwTotalSwap, false},
        {"SwapFree:", &tagMEMORYSTATUSEX::qwFreeSwap, false},
        {"Buffers:", &tagMEMORYSTATUSEX::qwAvailPhys, true},
        {"Cached:", &tagMEMORYSTATUSEX::qwAvailPhys, true},
    };

    // Old kernels have a table of two lines, in bytes.
    std::array<std::uint64_t, 6> tMem{};  // total, used, free, shared, buffers, cached
    std::array<std::uint64_t, 3> tSwap{}; // total, used, free
    if (bNumbersAfter(csLine, "Mem:", &tMem)) {
        pst->qwTotalPhys += tMem[0];
        pst->qwAvailPhys += tMem[2] + tMem[4] + tMem[5];
    }
    if (bNumbersAfter(csLine, "Swap:", &tSwap)) {
        pst->qwTotalSwap += tSwap[0];
        pst->qwFreeSwap += tSwap[2];
    }

    // Today's kernels have a line for each figure, in KiB. Buffers and Cached count as free: they are added
    // to MemFree, whose line comes first.
    std::array<std::uint64_t, 1> tKiB{};
    for (const STField& stField : s_tFields) {
        if (bNumbersAfter(csLine, stField.csWord, &tKiB) && tKiB[0] <= UINT64_MAX / 1024) {
            pst->*stField.pqw = tKiB[0] * 1024 + (stField.bAdd ? pst->*stField.pqw : 0);
        }
    }
}

/// Percent of memory and swap in use; 0 where the figures contradict each other. Divides by a hundredth of
/// the total, since 100 times the bytes in use might overflow.
std::uint32_t dwLoad(const tagMEMORYSTATUSEX& st)
{
    const std::uint64_t qwTotal = st.qwTotalPhys + st.qwTotalSwap;
    const std::uint64_t qwFree = st.qwAvailPhys + st.qwFreeSwap;
    if (st.qwTotalPhys == 0 || qwTotal / 100 == 0 || qwFree > qwTotal) {
        return 0;
    }
    return static_cast<std::uint32_t>((qwTotal - qwFree) / (qwTotal / 100));
}

/// Removes any number of double quotes at both ends.
std::string csTrimQuotes(std::string_view csValue)
{
    const std::size_t nFirst = csValue.find_first_not_of('"');
    if (nFirst == csValue.npos) {
        return {};
    }
    return std::string(csValue.substr(nFirst, csValue.find_last_not_of('"') - nFirst + 1));
}

std::string csFirstLine(const std::string& csText)
{
    return csText.substr(0, csText.find_first_of("\r\n"));
}

/// The word after "release ", else the text from the first digit to the next space.
std::string csReleaseVersion(const std::string& csLine)
{
    constexpr std::string_view csWord = "release ";
    std::size_t nStart = csLine.find(csWord);
    if (nStart != std::string::npos) {
        nStart += csWord.size();
    } else {
        nStart = csLine.find_first_of("0123456789");
    }
    return nStart == std::string::npos ? std::string()
                                       : csLine.substr(nStart, csLine.find(' ', nStart) - nStart);
}

/// Reads "/etc/WORD-release" of older distributions: its first line is the description.
bool bReadReleaseFile(const CReadFile& csRead, const std::string& csWord, STLinuxNameAndVersion* pstInfo)
{
    const std::string csLine = csFirstLine(csRead("/etc/" + csWord + "-release").value_or(""));
    if (csLine.empty()) {
        return false;
    }
    *pstInfo = {csWord, csReleaseVersion(csLine), csLine};
    return true;
}
} // namespace

STCpuInfo stParseCpuInfo(std::string_view csText)
{
    STCpuInfo stInfo;
    ForEachLine(csText, [&stInfo](std::string_view csLine) {
        ParseCpuLine(csLine.substr(0, s_nMaxCpuLine), &stInfo);
    });
    return stInfo;
}

void ParseMemInfo(std::string_view csText, tagMEMORYSTATUSEX* pstStatus)
{
    pstStatus->qwTotalPhys = pstStatus->qwAvailPhys = pstStatus->qwTotalSwap = pstStatus->qwFreeSwap = 0;
    ForEachLine(csText, [pstStatus](std::string_view csLine) {
        ParseMemLine(csLine.substr(0, s_nMaxMemLine), pstStatus);
    });
    pstStatus->dwMemoryLoad = dwLoad(*pstStatus);
}

bool readEtcFile(std::string_view csText, const STReleaseKeys& stKeys, STLinuxNameAndVersion* pstInfo)
{
    *pstInfo = {};

    ForEachLine(csText, [&](std::string_view csLine) {
        const auto Take = [csLine](std::string_view csKey, std::string* pcsValue) {
            if (csLine.starts_with(csKey)) {
                *pcsValue = csTrimQuotes(csLine.substr(csKey.size()));
            }
        };

        Take(stKeys.csId, &pstInfo->csId);
        Take(stKeys.csVersion, &pstInfo->csVersion);
        Take(stKeys.csDescription, &pstInfo->csDescription);
    });

    return !pstInfo->csId.empty() || !pstInfo->csDescription.empty();
}

bool bRecogniseDistribution(const CReadFile& csRead, STLinuxNameAndVersion* pstInfo)
{
    static constexpr struct
    {
        const char* pszPath;
        STReleaseKeys stKeys;
    } s_tKeyFiles[] = {
        {"/etc/os-release", {"ID=", "VERSION_ID=", "PRETTY_NAME="}},
        {"/etc/lsb-release", {"DISTRIB_ID=", "DISTRIB_RELEASE=", "DISTRIB_DESCRIPTION="}},
    };
    // "redhat" comes last: distributions derived from it have its file beside their own.
    static constexpr const char* s_tWords[] = {"fedora", "centos",    "mandriva", "mandrake", "SuSE",
                                               "gentoo", "slackware", "arch",     "redhat"};

    for (const auto& stFile : s_tKeyFiles) {
        if (readEtcFile(csRead(stFile.pszPath).value_or(""), stFile.stKeys, pstInfo)) {
            return true;
        }
    }

    for (const char* pszWord : s_tWords) {
        if (bReadReleaseFile(csRead, pszWord, pstInfo)) {
            return true;
        }
    }

    // Debian's file has the version only.
    const std::string csVersion = csFirstLine(csRead("/etc/debian_version").value_or(""));
    *pstInfo = {};
    if (!csVersion.empty()) {
        *pstInfo = {"Debian", csVersion, "Debian " + csVersion};
    }
    return !csVersion.empty();
}
