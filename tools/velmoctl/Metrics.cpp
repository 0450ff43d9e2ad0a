// The state of servers in Prometheus' text format, for the textfile collector of its node_exporter.

#include "velmoctl/Fleet.h"
#include "velmoctl/NewFile.h"
#include "velmoctl/Terminal.h"

#include <algorithm>
#include <iostream>
#include <set>
#include <sstream>

namespace {
/// Quotes a text by the format's rules. People look at the output, too, so what a terminal might obey
/// (newlines included) is replaced.
std::string csLabel(const std::string& csValue)
{
    std::string cs;
    for (const char c : csShown(csValue)) {
        cs += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return "\"" + cs + "\"";
}

/// All samples of one name. The format wants them together, after their description.
class CMetric
{
public:
    /// The description holds neither backslash nor newline.
    CMetric(const char* pszName, const char* pszHelp) : m_csName(pszName)
    {
        m_clText << "# HELP " << m_csName << " " << pszHelp << "\n# TYPE " << m_csName << " gauge\n";
    }
    template <class T>
    void Add(const std::string& csLabels, T clValue)
    {
        m_clText << m_csName << "{" << csLabels << "} " << clValue << "\n";
        m_bAny = true;
    }
    /// Nothing while there is no sample: a description alone would be noise.
    std::string csText() const { return m_bAny ? m_clText.str() : ""; }

private:
    std::string m_csName;
    std::ostringstream m_clText;
    bool m_bAny = false;
};

/// All metrics of machines and their servers.
class CMetrics
{
public:
    /// Adds what one machine answered, or that it did not.
    void Add(const STHostAnswer& st)
    {
        const std::string csHost = "host=" + csLabel(csHostWord(st.stHost));
        m_clUp.Add(csHost, st.clFailure.has_value() ? 0 : 1);
        if (st.clFailure.has_value()) {
            return;
        }

        m_clAnswer.Add(csHost, static_cast<double>(st.clTook.count()) / 1000);
        m_clServers.Add(csHost, st.stInfo->tServers.size()); // there is a list: metrics names no servers
        m_clInfo.Add(csHost + ",version=" + csLabel(st.stInfo->csVersion) + ",system=" +
                         csLabel(st.stInfo->csSystem) + ",kernel=" + csLabel(st.stInfo->csKernel),
                     1);
        std::set<std::string> tSeen; // the collector rejects a whole file for one repeated sample
        for (const STServerAnswer& stServer : st.tServers) {
            if (tSeen.insert(stServer.stServer.csName).second) {
                _Add(csHost + ",server=" + csLabel(stServer.stServer.csName), stServer);
            }
        }
    }
    std::string csText() const
    {
        std::string cs;
        for (const CMetric* const pcl : {&m_clUp, &m_clInfo, &m_clAnswer, &m_clServers, &m_clServerUp,
                                         &m_clServerState, &m_clServerPort}) {
            cs += pcl->csText();
        }
        return cs;
    }

private:
    /// Adds the samples of one server; none for an unknown state, of which neither 0 nor 1 would be true.
    void _Add(const std::string& csLabels, const STServerAnswer& st)
    {
        if (!st.csState.empty() && st.csState != "unknown") {
            m_clServerUp.Add(csLabels, st.csState == "running" ? 1 : 0);
            m_clServerState.Add(csLabels + ",state=" + csLabel(st.csState), 1);
        }
        if (clJsonPort(st.stServer.csPort).is_number()) { // a sample's value must be a number
            m_clServerPort.Add(csLabels, st.stServer.csPort);
        }
    }

    CMetric m_clUp{"velmo_manager_up", "Whether the manager answered (1) or not (0)."};
    CMetric m_clInfo{"velmo_manager_info", "The manager and its machine, always 1."};
    CMetric m_clAnswer{"velmo_manager_answer_seconds", "How long the list of servers and their states took."};
    CMetric m_clServers{"velmo_manager_servers", "How many servers the manager lists."};
    CMetric m_clServerUp{"velmo_server_up", "Whether the server runs (1) or not (0)."};
    CMetric m_clServerState{"velmo_server_state", "The state that the server is in, always 1."};
    CMetric m_clServerPort{"velmo_server_port", "The port in the server's settings."};
};
} // namespace

EExit eMetrics(const STCall& stCall)
{
    const CSelection clSelection(stCall.tArguments);
    const CSelection clIgnored(tItems(stCall.stOptions.tIgnore));
    STQuestions stQuestions = stStateQuestions(stCall);
    stQuestions.fnWanted = [&](const STServer& st) {
        return (clSelection.bAll() || clSelection.bHas(st.csName)) && !clIgnored.bHas(st.csName);
    };

    CMetrics clMetrics;
    const auto tAnswers = tAskFleet(stQuestions, false, [&](const std::vector<const STHostAnswer*>& tReady) {
        std::ranges::for_each(tReady, [&](const STHostAnswer* pst) { clMetrics.Add(*pst); });
    });

    if (stCall.stOptions.csOutput.empty()) {
        std::cout << clMetrics.csText();
    } else {
        ReplaceFile(stCall.stOptions.csOutput, clMetrics.csText());
    }

    TellTroubles(tTroubles(tAnswers, clSelection));
    return eWorstOf(tAnswers, clSelection);
}
