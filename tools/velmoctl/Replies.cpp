#include "velmoctl/Replies.h"

#include "manager/ReplyCodes.h"
#include "support/Conversion.h"
#include "support/ManagerNames.h"
#include "support/Shell.h"

#include <algorithm>
#include <charconv>
#include <iterator>

namespace {
constexpr std::size_t s_nHostFields = 5; // after the keyword: version, system, kernel, processors, memory

/// Fields between tabs; empty ones count.
std::vector<std::string> tSplit(std::string_view csLine)
{
    std::vector<std::string> tFields;
    for (std::size_t nEnd = 0; (nEnd = csLine.find('\t')) != csLine.npos; csLine.remove_prefix(nEnd + 1)) {
        tFields.emplace_back(csLine.substr(0, nEnd));
    }
    tFields.emplace_back(csLine);
    return tFields;
}

bool bDigits(const std::string& cs)
{
    return !cs.empty() && cs.find_first_not_of("0123456789") == std::string::npos;
}

/// Names and ports alternately. The manager drops the five characters of "DXCS-" from every name, also from
/// that of the default server ("dxsql"), of which nothing is left: an empty name is that server, which is
/// asked for by its whole name. An odd number of fields means that a name contains tabs: then a name goes on
/// until a number follows.
std::vector<STServer> tReadServers(const std::vector<std::string>& tFields, std::size_t nFirst)
{
    const bool bPairs = (tFields.size() - nFirst) % 2 == 0;
    std::vector<STServer> tServers;

    // n is the place of a name, then of its last part: the port is the next field.
    for (std::size_t n = nFirst; n + 1 < tFields.size(); n += 2) {
        std::string csName = tFields[n];
        for (; !bPairs && n + 2 < tFields.size() && !bDigits(tFields[n + 1]); ++n) {
            csName += " " + tFields[n + 1];
        }
        tServers.push_back({csName.empty() ? g_szDefaultServerA : csName, tFields[n + 1]});
    }
    return tServers;
}

/// A state as the manager sends it, and as velmoctl shows it.
struct STWord
{
    const char* pszSent;
    const char* pszShown;
};
constexpr STWord s_tStates[] = {
    {"RUNNING", "running"},
    {"STOPPED", "stopped"},
    {"START_PENDING", "starting"},
    {"STOP_PENDING", "stopping"},
    {"CONTINUE_PENDING", "continuing"},
    {"PAUSE_PENDING", "pausing"},
    {"PAUSED", "paused"},
    {"UNKWNOWN", "unknown"}, // the protocol spells it so
};

/// What to do about an error.
enum class ECure
{
    LIST,          ///< see which servers there are
    SERVICE,       ///< ask the service manager of that machine
    WITHOUT_FILES, ///< uninstall again, but keep the files
    RETRY,
    UPGRADE,
};

/// What an error code means: a sentence around the server and its machine.
struct STCode
{
    /// The words before and after the server and its machine. The second is null where the sentence is about
    /// the manager, whom the first then follows.
    const char* pszBefore;
    const char* pszAfter;
    unsigned int nCode;
    bool bSystemText; ///< the reply's text helps; where a look-up found nothing it is about something else
    ECure eCure;
};
constexpr STCode s_tCodes[] = {
    {"there is no server ", "", ERREUR_SERVICE_INCONNU, false, ECure::LIST},
    {"the server ", " could not be started", ERREUR_START, true, ECure::SERVICE},
    {"the server ", " could not be stopped, so nothing was removed", ERREUR_STOP, true, ECure::SERVICE},
    {"the state of the server ", " could not be read", ERREUR_STATUS, true, ECure::SERVICE},
    {" does not know this question", nullptr, ERREUR_COMMANDE_INCONNUE, false, ECure::UPGRADE},
    {"there is no server ", " that can be uninstalled", ERREUR_UNINSTALL_INCONNU, false, ECure::LIST},
    {"the files of the server ", " are deleted, its service is stopped but still registered",
     ERREUR_UNINSTALL_FICHIERS, false, ECure::WITHOUT_FILES},
    {"the server ", " is stopped, but its service could not be removed", ERREUR_UNINSTALL_SERVICE, true,
     ECure::SERVICE},
};

/// Takes the place of code 1's row when the reply's text is not the one for a server that does not exist:
/// then the manager could not find out.
constexpr STCode s_stNotLookedUp{"the server ", " could not be looked up", ERREUR_SERVICE_INCONNU, true,
                                 ECure::RETRY};
constexpr std::string_view s_csNoSuchServer = "No such file or directory";

/// The row of a refusal's code; null for an unknown code.
const STCode* pstRowOf(const STRefusal& stRefusal)
{
    if (stRefusal.nCode == ERREUR_SERVICE_INCONNU && !stRefusal.csText.empty() &&
        stRefusal.csText != s_csNoSuchServer) {
        return &s_stNotLookedUp;
    }
    const auto* const pst = std::ranges::find(s_tCodes, stRefusal.nCode, &STCode::nCode);
    return pst != std::end(s_tCodes) ? pst : nullptr;
}

/// What to do about it, as the end of a sentence.
std::string csCure(ECure eCure, const STAsked& st)
{
    const bool bHere = st.csHost.empty();
    switch (eCure) {
    case ECure::LIST:
        return "; \"velmoctl " + (bHere ? "" : "--host " + csShellWord(st.csHost) + " ") +
               "list\" shows those there are";
    case ECure::SERVICE:
        return "; \"systemctl status " + csShellWord(csUnitName(st.csServer)) + "\" " +
               (bHere ? "tells why" : "there tells why");
    case ECure::WITHOUT_FILES:
        return "; uninstall it again without --delete-files";
    case ECure::RETRY:
        return "; try again";
    case ECure::UPGRADE:
        return "; is it older than this velmoctl?";
    }

    return "";
}

/// What an error code says, without the reply's text; of an unknown code (null) only its number.
std::string csMeaning(const STCode* pstCode, unsigned int nCode, const STAsked& stAsked)
{
    const std::string csServer = stAsked.csServer.empty() ? "" : "\"" + stAsked.csServer + "\"";
    const std::string csOn = " on " + (stAsked.csHost.empty() ? "this machine" : stAsked.csHost);
    if (pstCode != nullptr && pstCode->pszAfter != nullptr) {
        return pstCode->pszBefore + csServer + csOn + pstCode->pszAfter;
    }

    const std::string csWhat =
        pstCode != nullptr ? pstCode->pszBefore : " answered with error " + std::to_string(nCode);
    return "the manager" + csOn + csWhat + (csServer.empty() ? "" : " about " + csServer);
}
} // namespace

std::optional<STRefusal> stReadRefusal(std::string_view csLine)
{
    constexpr std::string_view csKeyword = "ERROR\t";
    if (!csLine.starts_with(csKeyword)) {
        return std::nullopt;
    }

    csLine.remove_prefix(csKeyword.size());
    STRefusal stRefusal{};
    const auto stResult = std::from_chars(csLine.data(), csLine.data() + csLine.size(), stRefusal.nCode);
    if (stResult.ec != std::errc{}) {
        return std::nullopt;
    }

    csLine.remove_prefix(static_cast<std::size_t>(stResult.ptr - csLine.data()));

    // Only error 12 has a tab between code and text.
    stRefusal.csText = csLine.substr(csLine.starts_with('\t') ? 1 : 0);
    return stRefusal;
}

std::optional<STInfo> stReadInfo(std::string_view csLine)
{
    const std::vector<std::string> tFields = tSplit(csLine);
    if (tFields.size() <= s_nHostFields || tFields[0] != "YES") {
        return std::nullopt;
    }
    return STInfo{tFields[1], tFields[2], tFields[3],
                  tFields[4], tFields[5], tReadServers(tFields, s_nHostFields + 1)};
}

std::optional<std::string> csReadState(std::string_view csLine)
{
    const std::vector<std::string> tFields = tSplit(csLine);
    if (tFields.size() != 2 || tFields[0] != "STATUS") {
        return std::nullopt;
    }
    const auto* const pst = std::ranges::find(s_tStates, tFields[1], &STWord::pszSent);
    return pst == std::end(s_tStates) ? std::nullopt : std::optional<std::string>(pst->pszShown);
}

std::optional<bool> bReadDone(std::string_view csLine)
{
    return csLine == "OK" ? std::optional<bool>(true) : std::nullopt;
}

std::optional<std::string> csReadCluster(std::string_view csLine)
{
    for (const std::string_view csStart : {"YES\t0\t", "YES\t1\t"}) { // 1: there is a cluster, and a name
        if (csLine.starts_with(csStart)) {
            return std::string(csLine.substr(csStart.size()));
        }
    }
    return std::nullopt;
}

std::string csRefusalWords(const STRefusal& stRefusal, const STAsked& stAsked)
{
    const STCode* const pst = pstRowOf(stRefusal);
    std::string csWords = csMeaning(pst, stRefusal.nCode, stAsked);
    if (!stRefusal.csText.empty() && (pst == nullptr || pst->bSystemText)) {
        csWords += " (" + stRefusal.csText + ")";
    }
    if (pst == nullptr) {
        return csWords;
    }

    csWords += pst->eCure == ECure::LIST ? stAsked.pszUnknownHint : "";
    return csWords + csCure(pst->eCure, stAsked);
}

CServiceName clServiceOf(const std::string& csServer)
{
    return CServiceName::s_clSaid((g_szServerPrefix + csFromUTF8(csServer)).c_str());
}

std::string csUnitName(const std::string& csServer)
{
    const std::string csAsked = csToUTF8(clServiceOf(csServer).csAsked());
    return csAsked.empty() ? g_szServerPrefixA + csServer : csAsked;
}
