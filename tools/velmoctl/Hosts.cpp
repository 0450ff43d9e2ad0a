#include "velmoctl/Hosts.h"

#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>

namespace {
constexpr std::string_view s_csSpaces = " \t\r";

/// The numbers or letters between the brackets of a range.
struct STRange
{
    unsigned int nFirst = 0;
    unsigned int nLast = 0;
    unsigned int nStep = 1;
    std::size_t nDigits = 0; ///< numbers are padded with zeros to as many; 0: letters
};

std::optional<unsigned int> nWhole(std::string_view cs)
{
    unsigned int n = 0;
    const auto stResult = std::from_chars(cs.data(), cs.data() + cs.size(), n);
    const bool bWhole = stResult.ec == std::errc{} && stResult.ptr == cs.data() + cs.size();
    return bWhole ? std::optional<unsigned int>(n) : std::nullopt;
}

bool bLetter(std::string_view cs)
{
    return cs.size() == 1 && ((cs[0] >= 'a' && cs[0] <= 'z') || (cs[0] >= 'A' && cs[0] <= 'Z'));
}

/// Reads "01-40" or "a-f"; with the separator of inventories, a colon, also a step, "1:9:2". None for
/// anything else, and for a range that counts down or spans more than g_nMostHosts.
std::optional<STRange> stRange(std::string_view csInside, char cSeparator)
{
    STRange st;
    const std::size_t nSeparator = std::min(csInside.find(cSeparator), csInside.size());
    const std::string_view csFirst = csInside.substr(0, nSeparator);
    std::string_view csLast = csInside.substr(std::min(nSeparator + 1, csInside.size()));
    if (const std::size_t nStep = csLast.find(':'); cSeparator == ':' && nStep != csLast.npos) {
        st.nStep = nWhole(csLast.substr(nStep + 1)).value_or(0); // 0 is refused below
        csLast = csLast.substr(0, nStep);
    }

    if (bLetter(csFirst) && bLetter(csLast)) {
        st.nFirst = static_cast<unsigned char>(csFirst[0]);
        st.nLast = static_cast<unsigned char>(csLast[0]);
    } else if (const auto nFrom = nWhole(csFirst), nTo = nWhole(csLast); nFrom && nTo) {
        st.nFirst = *nFrom;
        st.nLast = *nTo;
        st.nDigits = csFirst.size();
    } else {
        return std::nullopt;
    }

    const bool bCounts = st.nStep > 0 && st.nFirst <= st.nLast && st.nLast - st.nFirst < g_nMostHosts;
    return bCounts ? std::optional<STRange>(st) : std::nullopt;
}

/// A member of a range as it stands in a name: "07", or "c".
std::string csMember(const STRange& st, unsigned int n)
{
    if (st.nDigits == 0) {
        return std::string(1, static_cast<char>(n));
    }
    const std::string cs = std::to_string(n);
    return std::string(st.nDigits - std::min(st.nDigits, cs.size()), '0') + cs;
}

CFailure clNoRange(std::string_view csInside)
{
    return {EExit::USAGE,
            "[" + csArgument(std::string(csInside)) + "] is not a range such as [01-40] or [a-f]"};
}

/// A text as a range with one of these separators; the first with which it is a range counts.
std::optional<STRange> stRangeWithAny(std::string_view csInside, std::string_view csSeparators)
{
    std::optional<STRange> st;
    for (const char c : csSeparators) {
        st = st.has_value() ? st : stRange(csInside, c);
    }
    return st;
}

/// The names that a word stands for: each range in it multiplies them. Calls itself for what follows the
/// first range. Throws CFailure (USAGE), also for more than g_nMostHosts names.
std::vector<std::string> tExpand(std::string_view csWord, std::string_view csSeparators)
{
    const std::size_t nOpen = csWord.find('[');
    const std::size_t nClose = csWord.find(']', std::min(nOpen, csWord.size()));
    if (nOpen == csWord.npos) {
        return {std::string(csWord)};
    }
    if (nClose == csWord.npos) {
        throw clNoRange(csWord.substr(nOpen + 1));
    }

    const std::string_view csInside = csWord.substr(nOpen + 1, nClose - nOpen - 1);
    const std::optional<STRange> st = stRangeWithAny(csInside, csSeparators);
    if (!st.has_value() && nOpen == 0 && std::ranges::count(csInside, ':') > 1) {
        return {std::string(csInside)}; // an IPv6 address; what follows its bracket is ignored
    }
    if (!st.has_value()) {
        throw clNoRange(csInside);
    }

    const std::vector<std::string> tRests = tExpand(csWord.substr(nClose + 1), csSeparators);
    std::vector<std::string> tNames;

    // The number has 64 bits: one of 32 could wrap around instead of getting past nLast.
    for (std::uint64_t n = st->nFirst; n <= st->nLast; n += st->nStep) {
        for (const std::string& csRest : tRests) {
            tNames.push_back(std::string(csWord.substr(0, nOpen)) +
                             csMember(*st, static_cast<unsigned int>(n)) + csRest);
        }
        if (tNames.size() > g_nMostHosts) {
            throw clNoRange(csInside);
        }
    }

    return tNames;
}

/// The words of a line up to a comment. Quotation marks keep spaces and "#" inside a word; a quotation that
/// is not closed reaches to the end of the line.
std::vector<std::string> tWordsOfLine(std::string_view csLine)
{
    std::vector<std::string> tWords;
    bool bInWord = false;
    char cQuote = 0; // the mark that will close the quotation; 0: outside of any
    for (const char c : csLine) {
        if (cQuote == 0 && s_csSpaces.find(c) != s_csSpaces.npos) {
            bInWord = false;
            continue;
        }
        if (cQuote == 0 && c == '#') {
            break;
        }

        if (!bInWord) {
            tWords.emplace_back();
            bInWord = true;
        }

        if (c == cQuote) {
            cQuote = 0;
        } else if (cQuote == 0 && (c == '"' || c == '\'')) {
            cQuote = c;
        } else {
            tWords.back() += c;
        }
    }

    return tWords;
}

bool bHolds(const std::vector<std::string>& tNames, const std::string& csName)
{
    return std::ranges::find(tNames, csName) != tNames.end();
}

/// The name of an inventory's host without the port for ssh that may follow it. Brackets, of a range or an
/// address, hold colons of their own.
std::string csWithoutPort(const std::string& csName)
{
    const std::size_t nColon = csName.find(':', csName.rfind(']') + 1); // without a bracket from 0: npos + 1
    const bool bPort =
        nColon != csName.npos && nColon == csName.rfind(':') && nWhole(csName.substr(nColon + 1));
    return bPort ? csName.substr(0, nColon) : csName;
}
} // namespace

std::vector<std::string> tExpandList(std::string_view csList)
{
    std::vector<std::string> tNames;
    while (!csList.empty()) {
        const std::size_t nEnd = std::min(csList.find(','), csList.size());
        if (nEnd > 0) {
            const std::vector<std::string> tMore = tExpand(csList.substr(0, nEnd), "-");
            tNames.insert(tNames.end(), tMore.begin(), tMore.end());
        }
        csList.remove_prefix(std::min(nEnd + 1, csList.size()));
    }

    if (tNames.size() > g_nMostHosts) {
        throw CFailure(EExit::USAGE, "more than " + std::to_string(g_nMostHosts) + " machines");
    }

    return tNames;
}

CHostsFile::CHostsFile(std::string_view csText, const std::string& csFileName) : m_csFile(csFileName)
{
    constexpr std::string_view csMark = "\xEF\xBB\xBF"; // the byte order mark that some editors write
    csText.remove_prefix(csText.starts_with(csMark) ? csMark.size() : 0);

    m_tGroups[m_csGroup]; // "ungrouped" exists even without a machine
    for (unsigned int nLine = 1; !csText.empty(); ++nLine) {
        const std::size_t nEnd = std::min(csText.find('\n'), csText.size());
        try {
            _Line(csText.substr(0, nEnd));
        } catch (const CFailure& clFailure) {
            throw CFailure(clFailure.eExit(),
                           m_csFile + ", line " + std::to_string(nLine) + ": " + clFailure.what());
        }
        csText.remove_prefix(std::min(nEnd + 1, csText.size()));
    }
}

std::vector<STHost> CHostsFile::tAll() const
{
    return _tHosts(m_tOrder);
}

std::vector<STHost> CHostsFile::tGroup(const std::string& csGroup) const
{
    if (csGroup == "all") {
        return tAll();
    }
    if (!m_tGroups.contains(csGroup)) {
        throw CFailure(EExit::USAGE, m_csFile + " has no group \"" + csArgument(csGroup) + "\"");
    }
    std::vector<std::string> tSeen;
    std::vector<std::string> tNames;
    _Collect(csGroup, &tSeen, &tNames);
    return _tHosts(tNames);
}

STHost CHostsFile::stFind(const std::string& csName) const
{
    const auto it = m_tHosts.find(csName);
    return it != m_tHosts.end() ? it->second : STHost{csName, csName, 0};
}

std::vector<std::string> CHostsFile::tGroupNames() const
{
    std::vector<std::string> tNames{"all"};
    for (const auto& [csName, stGroup] : m_tGroups) {
        tNames.push_back(csName);
    }
    return tNames;
}

/// One line, without its newline. Throws CFailure (USAGE), as do the three functions below; the
/// constructor adds the line's number.
void CHostsFile::_Line(std::string_view csLine)
{
    csLine.remove_prefix(std::min(csLine.find_first_not_of(s_csSpaces), csLine.size()));
    if (csLine.empty() || csLine[0] == '#' || csLine[0] == ';') {
        return;
    }

    const std::vector<std::string> tWords = tWordsOfLine(csLine);
    if (tWords.empty() || tWords[0].empty()) {
        throw CFailure(EExit::USAGE, "a machine without a name");
    }

    // A name may begin with a range ("[a-c]x"), so only a bracket that closes at the end makes a section.
    if (tWords.size() == 1 && tWords[0].front() == '[' && tWords[0].find(']') == tWords[0].size() - 1) {
        _Section(std::string_view(tWords[0]).substr(1, tWords[0].size() - 2));
    } else if (m_eSection == ESection::HOSTS) {
        _Hosts(tWords);
    } else if (m_eSection == ESection::CHILDREN) {
        m_tGroups[m_csGroup].tChildren.push_back(tWords[0]);
        m_tGroups[tWords[0]]; // the file may fill it further down
    }
}

/// The header of a section, without its brackets: "name", "name:children", "name:vars".
void CHostsFile::_Section(std::string_view csHeader)
{
    const std::size_t nColon = std::min(csHeader.find(':'), csHeader.size());
    const std::string_view csKind = csHeader.substr(std::min(nColon + 1, csHeader.size()));
    m_csGroup = csHeader.substr(0, nColon);
    if (m_csGroup.empty() || (nColon < csHeader.size() && csKind != "children" && csKind != "vars")) {
        throw CFailure(EExit::USAGE, "[" + csArgument(std::string(csHeader)) + "] is not a group");
    }

    m_eSection = csKind == "vars"       ? ESection::VARIABLES
                 : csKind == "children" ? ESection::CHILDREN
                                        : ESection::HOSTS;
    if (m_eSection != ESection::VARIABLES) {
        m_tGroups[m_csGroup]; // exists even if no line follows
    }
}

/// A line of machines: a name or a range of names, then variables for each of them. Inventories count with a
/// colon, which is tried first because it takes a step.
void CHostsFile::_Hosts(const std::vector<std::string>& tWords)
{
    for (const std::string& csExpanded : tExpand(csWithoutPort(tWords[0]), ":-")) {
        const std::string csName = csArgument(csExpanded);
        if (csName.empty()) { // ":22", a port alone; an empty name stands for this machine
            throw CFailure(EExit::USAGE, "a machine without a name");
        }

        // A machine may stand in several lines, each with other variables.
        const bool bNew = !m_tHosts.contains(csName);
        if (bNew) {
            m_tOrder.push_back(csName);
            m_tHosts[csName] = {csName, csName, 0};
        }
        for (auto it = tWords.begin() + 1; it != tWords.end(); ++it) {
            _Variable(*it, &m_tHosts[csName]);
        }

        // Only a machine known before can be in the group already: this spares the search for all new ones.
        std::vector<std::string>& tGroup = m_tGroups[m_csGroup].tHosts;
        if (bNew || !bHolds(tGroup, csName)) {
            tGroup.push_back(csName);
        }
    }

    if (m_tOrder.size() > g_nMostHosts) {
        throw CFailure(EExit::USAGE, "more than " + std::to_string(g_nMostHosts) + " machines");
    }
}

/// "name=value"; most variables mean nothing here.
void CHostsFile::_Variable(const std::string& csWord, STHost* pstHost) const
{
    const std::size_t nEqual = std::min(csWord.find('='), csWord.size());
    const std::string csName = csWord.substr(0, nEqual);
    const std::string csValue = csWord.substr(std::min(nEqual + 1, csWord.size()));
    if (csName == "ansible_host") {
        if (csValue.empty()) { // an empty address stands for this machine: what is done would be done here
            throw CFailure(EExit::USAGE, "ansible_host= without an address");
        }
        pstHost->csAddress = csValue;
    } else if (csName == "velmo_port") {
        pstHost->wPort = wReadPort(csValue);
    }
}

/// Adds the machines of a group and of the groups in it, each once.
void CHostsFile::_Collect(const std::string& csGroup, std::vector<std::string>* ptSeen,
                          std::vector<std::string>* ptHosts) const
{
    // Groups may contain each other: one that was seen ends the recursion.
    const auto it = m_tGroups.find(csGroup);
    if (it == m_tGroups.end() || bHolds(*ptSeen, csGroup)) {
        return;
    }

    ptSeen->push_back(csGroup);
    for (const std::string& csName : it->second.tHosts) {
        if (!bHolds(*ptHosts, csName)) {
            ptHosts->push_back(csName);
        }
    }

    for (const std::string& csChild : it->second.tChildren) {
        _Collect(csChild, ptSeen, ptHosts);
    }
}

std::vector<STHost> CHostsFile::_tHosts(const std::vector<std::string>& tNames) const
{
    std::vector<STHost> tResult;
    tResult.reserve(tNames.size());
    for (const std::string& csName : tNames) {
        tResult.push_back(m_tHosts.at(csName));
    }
    return tResult;
}
