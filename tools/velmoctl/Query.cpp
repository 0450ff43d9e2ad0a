// The commands that only ask: info, list, status, cluster.

#include "velmoctl/Query.h"

#include "velmoctl/Output.h"

#include <algorithm>
#include <atomic>
#include <iostream>
#include <thread>

namespace {
constexpr std::size_t s_nConversations = 16;

STInfo stAskInfo(const STCall& stCall)
{
    CConversation clManager(stCall.stOptions, stCall.clTimeout);
    return tAskFor(&clManager, {"INFO"}, "", stReadInfo);
}

/// Green for what runs, red for what does not, yellow for what is on its way.
EColour eStateColour(const std::string& csState)
{
    if (csState == "running") {
        return EColour::GREEN;
    }
    return csState == "stopped" || csState == "?" ? EColour::RED : EColour::YELLOW;
}

/// Asks for the states of servers, taking the next one from the list until it is at its end.
class CStateAsker
{
public:
    CStateAsker(const STCall& stCall, std::vector<STListed>* ptList) : m_stCall(stCall), m_tList(*ptList) {}

    /// Several threads may run it at once.
    void Run()
    {
        std::unique_ptr<CConversation> pclManager;
        for (std::size_t n = 0; (n = m_nNext++) < m_tList.size();) {
            _Ask(&pclManager, &m_tList[n]);
        }
    }

private:
    void _Ask(std::unique_ptr<CConversation>* ppclManager, STListed* pst)
    {
        try {
            if (m_bGivenUp) {
                throw CFailure(EExit::UNREACHABLE, "not asked: the manager does not answer any more");
            }
            if (*ppclManager == nullptr) {
                *ppclManager = std::make_unique<CConversation>(m_stCall.stOptions, m_stCall.clTimeout);
            }
            const std::string& csName = pst->stServer.csName;
            pst->csState = tAskFor(ppclManager->get(), {"STATUS", csName}, csName, csReadState);
        } catch (const CFailure& clFailure) {
            pst->csFailure = clFailure.what();
            pst->eExit = clFailure.eExit();
            m_bGivenUp = m_bGivenUp || pst->eExit != EExit::REFUSED;
        }
    }

    const STCall& m_stCall;
    std::vector<STListed>& m_tList;
    std::atomic<std::size_t> m_nNext = 0;
    std::atomic<bool> m_bGivenUp = false;
};

/// Fills the list, with some conversations at a time.
void AskStates(const STCall& stCall, std::vector<STListed>* ptList)
{
    CStateAsker clAsker(stCall, ptList);
    std::vector<std::jthread> tThreads;
    for (std::size_t n = 0; n < std::min(s_nConversations, ptList->size()); ++n) {
        tThreads.emplace_back([&] { clAsker.Run(); });
    }
}
} // namespace

std::vector<STListed> tAskList(const STCall& stCall)
{
    const CProgress clProgress("asking the manager...");
    std::vector<STListed> tList;
    for (STServer& stServer : stAskInfo(stCall).tServers) {
        tList.push_back({std::move(stServer), "", "", EExit::DONE});
    }
    clProgress.Show("asking for " + std::to_string(tList.size()) + " states...");
    AskStates(stCall, &tList);
    for (const STListed& st : tList) {
        if (st.eExit == EExit::INTERRUPTED) {
            throw CFailure(st.eExit, st.csFailure);
        }
    }
    return tList;
}

std::string csListTable(const std::vector<STListed>& tList)
{
    std::vector<std::vector<STCell>> tRows;
    for (const STListed& st : tList) {
        const std::string csState = st.csState.empty() ? "?" : st.csState;
        tRows.push_back({{st.stServer.csName}, {st.stServer.csPort}, {csState, eStateColour(csState)}});
    }
    return csTable({"NAME", "PORT", "STATE"}, tRows);
}

std::string csListJson(const std::vector<STListed>& tList)
{
    std::vector<std::string> tObjects;
    tObjects.reserve(tList.size());
    for (const STListed& st : tList) {
        tObjects.push_back(csJsonObject({{"name", csJsonText(st.stServer.csName)},
                                         {"port", csJsonNumber(st.stServer.csPort)},
                                         {"state", st.csState.empty() ? "null" : csJsonText(st.csState)}}));
    }
    return csJsonArray(tObjects);
}

EExit eTellFailures(const std::vector<STListed>& tList)
{
    EExit eWorst = EExit::DONE;
    for (const STListed& st : tList) {
        if (st.eExit != EExit::DONE) {
            std::cout.flush();
            std::cerr << "velmoctl: " << csShown(st.stServer.csName + ": " + st.csFailure) << "\n";
            eWorst = std::max(eWorst, st.eExit);
        }
    }
    return eWorst;
}

std::string csServersJson(const std::vector<STServer>& tServers)
{
    std::vector<std::string> tObjects;
    tObjects.reserve(tServers.size());
    for (const STServer& st : tServers) {
        tObjects.push_back(
            csJsonObject({{"name", csJsonText(st.csName)}, {"port", csJsonNumber(st.csPort)}}));
    }
    return csJsonArray(tObjects);
}

EExit eInfo(const STCall& stCall)
{
    const STInfo st = stAskInfo(stCall);
    if (stCall.stOptions.bJson) {
        std::cout << csJsonObject({{"version", csJsonText(st.csVersion)},
                                   {"system", csJsonText(st.csSystem)},
                                   {"kernel", csJsonText(st.csKernel)},
                                   {"processors", csJsonText(st.csProcessors)},
                                   {"memory", csJsonText(st.csMemory)},
                                   {"servers", csServersJson(st.tServers)}})
                  << "\n";
        return EExit::DONE;
    }
    std::cout << "version     " << csShown(st.csVersion) << "\nsystem      " << csShown(st.csSystem)
              << "\nkernel      " << csShown(st.csKernel) << "\nprocessors  " << csShown(st.csProcessors)
              << "\nmemory      " << csShown(st.csMemory) << "\nservers     " << st.tServers.size() << "\n";
    for (const STServer& stServer : st.tServers) {
        std::cout << "  " << csShown(stServer.csName + ", port " + stServer.csPort) << "\n";
    }
    return EExit::DONE;
}

EExit eList(const STCall& stCall)
{
    if (stCall.stOptions.bNames) {
        std::vector<std::string> tNames;
        for (const STServer& st : stAskInfo(stCall).tServers) {
            tNames.push_back(stCall.stOptions.bJson ? csJsonText(st.csName) : csShown(st.csName) + "\n");
        }
        if (stCall.stOptions.bJson) {
            std::cout << csJsonArray(tNames) << "\n";
            return EExit::DONE;
        }
        for (const std::string& csName : tNames) {
            std::cout << csName;
        }
        return EExit::DONE;
    }
    const std::vector<STListed> tList = tAskList(stCall);
    std::cout << (stCall.stOptions.bJson ? csListJson(tList) + "\n" : csListTable(tList));
    return eTellFailures(tList);
}

EExit eStatus(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    CConversation clManager(stCall.stOptions, stCall.clTimeout);
    const std::string csState = tAskFor(&clManager, {"STATUS", csName}, csName, csReadState);
    if (stCall.stOptions.bJson) {
        std::cout << csJsonObject({{"name", csJsonText(csName)}, {"state", csJsonText(csState)}}) << "\n";
    } else {
        std::cout << csColoured(csState, eStateColour(csState)) << "\n";
    }
    return EExit::DONE;
}

EExit eCluster(const STCall& stCall)
{
    const std::string csName = csArgument(stCall.tArguments[0]);
    CConversation clManager(stCall.stOptions, stCall.clTimeout);
    const std::string csManager =
        tAskFor(&clManager, {"CLUSTERINFO", csName}, csName, csReadCluster, ", or its folder is missing");
    if (stCall.stOptions.bJson) {
        std::cout << csJsonObject({{"name", csJsonText(csName)},
                                   {"cluster_manager", csManager.empty() ? "null" : csJsonText(csManager)}})
                  << "\n";
    } else if (csManager.empty()) {
        std::cout << "\"" << csShown(csName) << "\" belongs to no cluster\n";
    } else {
        std::cout << "\"" << csShown(csName) << "\" belongs to the cluster managed by \""
                  << csShown(csManager) << "\"\n";
    }
    return EExit::DONE;
}
