// The settings that the check knows, and the faults that it finds in values.

#include "support/Conversion.h"
#include "velmoctl/Lint.h"

#include <algorithm>
#include <cwchar>
#include <iterator>
#include <limits>

namespace {
template <class T>
constexpr STSetting stRow(const settings::STNumber<T>& st, EValue eValue)
{
    return {st.pszSection, st.pszKey, 0, st.nDefault, eValue};
}

constexpr STSetting stRow(const settings::STText& st, EValue eValue)
{
    return {st.pszSection, st.pszKey, st.nSize, 0, eValue};
}

constexpr STSetting s_tSettings[] = {
    stRow(settings::Name, EValue::TEXT),
    stRow(settings::ErrorLogMode, EValue::LOG_MODE),
    stRow(settings::ErrorLogFile, EValue::PATH),
    stRow(settings::SocketOptions, EValue::FAMILIES),
    stRow(settings::DBRootPath, EValue::PATH),
    stRow(settings::LogConnexion, EValue::YES_NO),
    stRow(settings::MoreThan2Go, EValue::YES_NO),
    stRow(settings::AccessPort, EValue::PORT),
    stRow(settings::ZLDebugPort, EValue::PORT),
    stRow(settings::PreVersion, EValue::SIGNED),
    stRow(settings::NdxCacheSize, EValue::UNSIGNED),
    stRow(settings::CacheMaxUnusedFiles, EValue::UNSIGNED),
    stRow(settings::CacheFilesPrefetch, EValue::YES_NO),
    stRow(settings::ReplicAllowIdAuto4, EValue::YES_NO),
    stRow(settings::WindowsFileCacheSize, EValue::SIGNED),
    stRow(settings::WithCoreDump, EValue::YES_NO),
    stRow(settings::DaemonUser, EValue::TEXT),
    stRow(settings::ActivityStatisticPeriod, EValue::PERIOD),
    stRow(settings::ActivityStatisticMaxFileSize, EValue::MEGABYTES),
    stRow(settings::ActivityStatisticPath, EValue::PATH),
    stRow(settings::AfterUpdateReport, EValue::TEXT),
    stRow(settings::Installer, EValue::TEXT),
    stRow(settings::JNLRootPath, EValue::PATH),
    stRow(settings::JNLBackupRootPath, EValue::PATH),
    stRow(settings::DumpLevel, EValue::UNSIGNED),
    stRow(settings::DumpPath, EValue::PATH),
    stRow(settings::KeySearch, EValue::YES_NO),
    stRow(settings::RestartOnFailed, EValue::YES_NO),
    stRow(settings::CheckPeriod, EValue::SECONDS),
    stRow(settings::Cluster, EValue::NODE),
    stRow(settings::ClusterManager, EValue::TEXT),
    stRow(settings::NodePassword, EValue::TEXT),
    stRow(settings::NodeRunning, EValue::YES_NO),
    stRow(settings::LastRun, EValue::UNSIGNED),
    stRow(settings::AutoAnalyseEnable, EValue::YES_NO),
    stRow(settings::AutoAnalyseWait, EValue::UNSIGNED),
    stRow(settings::AutoAnalyseBetweenScan, EValue::UNSIGNED),
    stRow(settings::AutoAnalyseBetweenStat, EValue::UNSIGNED),
    stRow(settings::AutoAnalyseAfterCreation, EValue::UNSIGNED),
    stRow(settings::AutoAnalyseMinWrite, EValue::UNSIGNED),
    stRow(settings::AutoAnalysePercentWrite, EValue::UNSIGNED),
};

constexpr long long s_n31 = 1LL << 31, s_n32 = 1LL << 32;

/// The bounds of a number, and what the programs make of one beyond them. Between -2^31 and 2^32 - 1 no
/// number but 0 reads as 0, which is all that counts for yes or no.
struct STBounds
{
    EValue eValue;
    long long nMin;
    long long nMax;
    const char* pszBeyond;
};
constexpr STBounds s_tBounds[] = {
    {EValue::SIGNED, -s_n31, s_n31 - 1, "wraps around"},
    {EValue::UNSIGNED, 0, s_n32 - 1, "wraps around"},
    {EValue::YES_NO, -s_n31, s_n32 - 1, "wraps around"},
    {EValue::PORT, 1, 65535, "is no port (1 to 65535)"},
    {EValue::PERIOD, 0, 65535, "counts as 65535"},
    {EValue::MEGABYTES, 0, 4095, "wraps around: at most 4095 megabytes can be set"},
    {EValue::SECONDS, 0, 4294967, "wraps around: at most 4294967 seconds can be set"},
    {EValue::NODE, 0, 1, "makes no cluster node: only 1 does"},
};

constexpr std::size_t s_nNumberCharacters = 19; // the programs look at no more

// The functions below say how the programs would misread a value; empty when they read it as written.

std::string csNumberFault(const STSetting& stSetting, const std::wstring& csValue)
{
    // Nineteen digits may exceed even a long long. It then has its largest value, which is beyond every
    // bound.
    const std::wstring csRead = csValue.substr(0, s_nNumberCharacters);
    wchar_t* pszEnd = nullptr;
    const long long nValue = std::wcstoll(csRead.c_str(), &pszEnd, 10);
    const std::string csReads = "reads as " + std::to_string(nValue);

    if (csValue.find_first_not_of(L" \t") == std::wstring::npos) {
        return "the value is empty: reads as 0, not as the default " + std::to_string(stSetting.nDefault);
    }
    if (pszEnd == csRead.c_str()) {
        return "\"" + csToUTF8(csValue) + "\" is not a decimal number: reads as 0";
    }
    if (csRead.find_first_not_of(L" \t", static_cast<std::size_t>(pszEnd - csRead.c_str())) != csRead.npos) {
        return "\"" + csToUTF8(csValue) + "\" " + csReads + ": what follows the digits is ignored";
    }
    if (csValue.find_first_not_of(L" \t", csRead.size()) != std::wstring::npos) {
        return "only the first 19 characters of the number count";
    }

    const auto* const pst = std::ranges::find(s_tBounds, stSetting.eValue, &STBounds::eValue);
    const bool bFits = pst == std::end(s_tBounds) || (nValue >= pst->nMin && nValue <= pst->nMax);
    return bFits ? "" : std::to_string(nValue) + " " + pst->pszBeyond;
}

/// The programs know a macro at the start of a path by its first seven characters, "%%EXE%%" or "%%COMMO".
std::string csPathFault(const std::wstring& csValue)
{
    const bool bMacro = csValue.starts_with(L"%%");
    if (!bMacro || csValue.starts_with(L"%%EXE%%") || csValue.starts_with(L"%%COMMONAPPDATA%%")) {
        return "";
    }
    return csValue.starts_with(L"%%COMMO")
               ? "the path is taken to begin with %%COMMONAPPDATA%%"
               : "the path begins with no known macro (%%EXE%%, %%COMMONAPPDATA%%)";
}

std::string csLogModeFault(const std::wstring& csValue)
{
    const bool bKnown = csValue == L"SYSTEM" || csValue == L"FILE";
    return bKnown ? "" : "\"" + csToUTF8(csValue) + "\" logs nowhere: only SYSTEM and FILE, in capitals, do";
}

std::string csFamiliesFault(const std::wstring& csValue)
{
    constexpr std::wstring_view tWords[] = {L"IPV4_ONLY", L"IPV6_ONLY", L"IPV4_IPV6", L"IPV6_IPV4"};
    for (std::size_t nStart = 0; nStart <= csValue.size();) {
        const std::size_t nEnd = std::min(csValue.find(L',', nStart), csValue.size());
        const std::wstring_view csWord = std::wstring_view(csValue).substr(nStart, nEnd - nStart);
        if (std::ranges::none_of(tWords, [&](std::wstring_view cs) { return bSameName(cs, csWord); })) {
            return "\"" + csToUTF8(std::wstring(csWord)) +
                   "\" is none of the words IPV4_ONLY, IPV6_ONLY, IPV4_IPV6, IPV6_IPV4";
        }
        nStart = nEnd + 1;
    }
    return "";
}

/// A text that is too long, and what many take for syntax but belongs to the value: quotation marks,
/// comments, trailing whitespace.
std::string csTextFault(const STSetting& stSetting, const std::wstring& csValue)
{
    if (csValue.size() >= stSetting.nSize) {
        return "only the first " + std::to_string(stSetting.nSize - 1) + " characters of the value count";
    }
    if (csValue.ends_with(L' ') || csValue.ends_with(L'\t')) {
        return "the whitespace at the end belongs to the value";
    }
    if (csValue.size() > 1 && csValue.front() == L'"' && csValue.back() == L'"') {
        return "the quotation marks belong to the value";
    }
    if (csValue.find(L" ;") != std::wstring::npos || csValue.find(L"\t;") != std::wstring::npos) {
        return "the text after \";\" belongs to the value: a comment is a line that begins with \":\"";
    }

    return "";
}
} // namespace

bool bSameName(std::wstring_view cs1, std::wstring_view cs2)
{
    const auto fnFold = [](wchar_t c) { return c >= L'A' && c <= L'Z' ? c - L'A' + L'a' : c; };
    return std::ranges::equal(cs1, cs2, {}, fnFold, fnFold);
}

const STSetting* pstSetting(std::wstring_view csSection, std::wstring_view csKey)
{
    const auto* const pst = std::ranges::find_if(s_tSettings, [&](const auto& st) {
        return bSameName(st.pszSection, csSection) && bSameName(st.pszKey, csKey);
    });
    return pst == std::end(s_tSettings) ? nullptr : pst;
}

const wchar_t* pszSectionOf(std::wstring_view csKey)
{
    const auto* const pst =
        std::ranges::find_if(s_tSettings, [&](const auto& st) { return bSameName(st.pszKey, csKey); });
    return pst == std::end(s_tSettings) ? nullptr : pst->pszSection;
}

bool bKnownSection(std::wstring_view csSection)
{
    return std::ranges::any_of(s_tSettings,
                               [&](const auto& st) { return bSameName(st.pszSection, csSection); });
}

std::string csValueFault(const STSetting& stSetting, const std::wstring& csValue)
{
    if (stSetting.nSize == 0) {
        return csNumberFault(stSetting, csValue);
    }

    std::string csFault = csTextFault(stSetting, csValue);
    if (!csFault.empty()) {
        return csFault;
    }

    switch (stSetting.eValue) {
    case EValue::PATH:
        return csPathFault(csValue);
    case EValue::LOG_MODE:
        return csLogModeFault(csValue);
    case EValue::FAMILIES:
        return csFamiliesFault(csValue);
    default:
        return "";
    }
}
