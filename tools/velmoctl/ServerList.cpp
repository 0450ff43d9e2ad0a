#include "velmoctl/ServerList.h"

#include <algorithm>
#include <iterator>

namespace {
constexpr STColumn s_tColumns[] = {
    {"host", "HOST", [](const STListed& st) { return csHostWord(st.pstHost->stHost); }},
    {"name", "NAME", [](const STListed& st) { return st.pstServer->stServer.csName; }},
    {"port", "PORT", [](const STListed& st) { return st.pstServer->stServer.csPort; }},
    {"state", "STATE", [](const STListed& st) { return csStateShown(*st.pstServer); }},
    {"pid", "PID", [](const STListed& st) { return st.pstServer->csPid; }},
    {"since", "SINCE", [](const STListed& st) { return st.pstServer->csSince; }},
    {"folder", "FOLDER", [](const STListed& st) { return st.pstServer->csFolder; }},
    {"log", "LOG", [](const STListed& st) { return st.pstServer->csLog; }},
};
constexpr std::size_t s_nShort = 4; // columns without --long: the first ones
constexpr std::string_view s_csState = "state";

constexpr const char* s_tStates[] = {"running",    "stopped", "failed", "starting", "stopping",
                                     "continuing", "pausing", "paused", "unknown",  "?"};

const STColumn* pstColumn(const std::string& csName)
{
    const auto* const pst = std::ranges::find(s_tColumns, csName, &STColumn::pszName);
    if (pst == std::end(s_tColumns)) {
        std::string csAll;
        for (const STColumn& st : s_tColumns) {
            csAll += std::string(csAll.empty() ? "" : ", ") + st.pszName;
        }
        throw CFailure(EExit::USAGE, "there is no column \"" + csName + "\"; there are " + csAll);
    }
    return pst;
}

void CheckState(const std::string& csState)
{
    if (std::ranges::find(s_tStates, csState) == std::end(s_tStates)) {
        std::string csAll;
        for (const char* const psz : s_tStates) {
            csAll += std::string(csAll.empty() ? "" : ", ") + psz;
        }
        throw CFailure(EExit::USAGE, "there is no state \"" + csState + "\"; there are " + csAll);
    }
}

/// Orders numbers by their value, and before texts. Of two numbers the one with more digits is taken for the
/// larger: ports and PIDs have no leading zeros.
bool bLess(const std::string& cs1, const std::string& cs2)
{
    const auto bNumber = [](const std::string& cs) {
        return !cs.empty() && cs.find_first_not_of("0123456789") == std::string::npos;
    };
    if (bNumber(cs1) && bNumber(cs2)) {
        return cs1.size() != cs2.size() ? cs1.size() < cs2.size() : cs1 < cs2;
    }
    return bNumber(cs1) != bNumber(cs2) ? bNumber(cs1) : cs1 < cs2;
}

Json clTextOrNull(const std::string& cs)
{
    return cs.empty() ? Json() : Json(cs);
}

/// The JSON object of a server; without one that of a host that gave no answer.
Json clJsonRow(const STHostAnswer& stHost, const STServerAnswer* pst, bool bLong)
{
    Json cl = {{"host", csHostWord(stHost.stHost)}, {"asked", csWhenAsked(stHost)}};
    const STServerAnswer stNone;
    const STServerAnswer& stServer = pst != nullptr ? *pst : stNone;
    cl["name"] = clTextOrNull(stServer.stServer.csName);
    cl["port"] = pst != nullptr ? clJsonPort(stServer.stServer.csPort) : Json();
    cl["state"] = clTextOrNull(stServer.csState);
    if (bLong) {
        cl["pid"] = stServer.csPid.empty() ? Json() : clJsonPort(stServer.csPid);
        cl["since"] = clTextOrNull(stServer.csSince);
        cl["folder"] = clTextOrNull(stServer.csFolder);
        cl["log"] = clTextOrNull(stServer.csLog);
    }

    cl["error"] = clJsonFailure(pst != nullptr ? stServer.clFailure : stHost.clFailure);
    return cl;
}
} // namespace

CServerList::CServerList(const STOptions& stOptions, bool bManyHosts)
    : m_bLong(stOptions.bLong), m_tStates(tItems(stOptions.tStates))
{
    for (const std::string& cs : tItems(stOptions.tColumns)) {
        m_tColumns.push_back(pstColumn(cs));
    }

    if (m_tColumns.empty()) {
        const std::size_t nEnd = m_bLong ? std::size(s_tColumns) : s_nShort;
        for (std::size_t n = bManyHosts ? 0 : 1; n < nEnd; ++n) { // the first column is the host
            m_tColumns.push_back(&s_tColumns[n]);
        }
    }

    for (const std::string& cs : tItems(stOptions.tSort)) {
        const bool bReversed = cs.starts_with("-");
        m_tSort.push_back({pstColumn(cs.substr(bReversed ? 1 : 0)), bReversed});
    }

    for (const std::string& cs : m_tStates) {
        CheckState(cs);
    }
}

std::vector<STListed> CServerList::tRows(const std::vector<const STHostAnswer*>& tAnswers) const
{
    std::vector<STListed> tResult;
    for (const STHostAnswer* const pst : tAnswers) {
        for (const STServerAnswer& st : pst->tServers) {
            if (_bWanted(st)) {
                tResult.push_back({pst, &st});
            }
        }
    }

    // By the first key in which two rows differ. Stable, so that equal rows, and all without --sort, stay in
    // the answers' order.
    std::ranges::stable_sort(tResult, [this](const STListed& st1, const STListed& st2) {
        for (const STKey& stKey : m_tSort) {
            const std::string cs1 = stKey.pstColumn->pfnText(st1), cs2 = stKey.pstColumn->pfnText(st2);
            if (cs1 != cs2) {
                return stKey.bReversed ? bLess(cs2, cs1) : bLess(cs1, cs2);
            }
        }
        return false;
    });

    return tResult;
}

std::vector<std::string> CServerList::tHeader() const
{
    std::vector<std::string> tNames;
    tNames.reserve(m_tColumns.size());
    for (const STColumn* const pst : m_tColumns) {
        tNames.emplace_back(pst->pszHeader);
    }
    return tNames;
}

std::vector<CRow> CServerList::tCells(const std::vector<STListed>& tRows) const
{
    std::vector<CRow> tResult;
    for (const STListed& st : tRows) {
        CRow tRow;
        for (const STColumn* const pst : m_tColumns) {
            const std::string csText = pst->pfnText(st);
            tRow.push_back({csText, pst->pszName == s_csState ? eStateColour(csText) : EColour::PLAIN});
        }
        tResult.push_back(std::move(tRow));
    }
    return tResult;
}

Json CServerList::clJson(const std::vector<STHostAnswer>& tAnswers) const
{
    Json clRows = Json::array();
    for (const STListed& st : tRows(tPointers(tAnswers))) {
        clRows.push_back(clJsonRow(*st.pstHost, st.pstServer, m_bLong));
    }
    for (const STHostAnswer& st : tAnswers) {
        if (st.clFailure.has_value()) {
            clRows.push_back(clJsonRow(st, nullptr, m_bLong));
        }
    }
    return clRows;
}

bool CServerList::_bWanted(const STServerAnswer& st) const
{
    return m_tStates.empty() || std::ranges::find(m_tStates, csStateShown(st)) != m_tStates.end();
}

EColour eStateColour(const std::string& csState)
{
    if (csState == "running") {
        return EColour::GREEN;
    }
    return csState == "stopped" || csState == "failed" || csState == "?" ? EColour::RED : EColour::YELLOW;
}

std::string csStateShown(const STServerAnswer& st)
{
    return st.csState.empty() ? "?" : st.csState;
}

std::vector<const STHostAnswer*> tPointers(const std::vector<STHostAnswer>& tAnswers)
{
    std::vector<const STHostAnswer*> tResult;
    tResult.reserve(tAnswers.size());
    for (const STHostAnswer& st : tAnswers) {
        tResult.push_back(&st);
    }
    return tResult;
}
