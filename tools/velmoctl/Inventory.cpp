#include "velmoctl/Inventory.h"

#include <cstdint>

namespace {
/// "address:port", with an IPv6 address in brackets.
std::string csTarget(const std::string& csAddress, std::uint16_t wPort)
{
    const bool bBrackets = csAddress.find(':') != std::string::npos;
    return (bBrackets ? "[" + csAddress + "]" : csAddress) + ":" + std::to_string(wPort);
}
} // namespace

Json clJsonServers(const std::vector<STServer>& tServers)
{
    Json clServers = Json::array();
    for (const STServer& st : tServers) {
        clServers.push_back({{"name", st.csName}, {"port", clJsonPort(st.csPort)}});
    }
    return clServers;
}

Json clJsonFound(const std::vector<STFound>& tFound)
{
    Json clAll = Json::array();
    for (const STFound& st : tFound) {
        clAll.push_back({{"address", st.csAddress},
                         {"this_machine", st.bHere},
                         {"version", st.stInfo.csVersion},
                         {"system", st.stInfo.csSystem},
                         {"servers", clJsonServers(st.stInfo.tServers)}});
    }
    return clAll;
}

Json clPrometheusTargets(const std::vector<STFound>& tFound, std::uint16_t wExporterPort)
{
    Json clAll = Json::array();
    for (const STFound& st : tFound) {
        // Labels that begin with "__meta_" are for relabelling rules; Prometheus drops them afterwards.
        const Json clLabels = {{"__meta_velmo_address", st.csAddress},
                               {"__meta_velmo_version", st.stInfo.csVersion},
                               {"__meta_velmo_system", st.stInfo.csSystem},
                               {"__meta_velmo_servers", std::to_string(st.stInfo.tServers.size())}};
        clAll.push_back({{"targets", {csTarget(st.csAddress, wExporterPort)}}, {"labels", clLabels}});
    }
    return clAll;
}

Json clAnsibleInventory(const std::vector<STFound>& tFound)
{
    Json clHosts = Json::array();
    Json clVariables = Json::object();
    for (const STFound& st : tFound) {
        clHosts.push_back(st.csAddress);
        Json cl = {{"ansible_host", st.csAddress},
                   {"velmo_version", st.stInfo.csVersion},
                   {"velmo_system", st.stInfo.csSystem},
                   {"velmo_servers", clJsonServers(st.stInfo.tServers)}};
        if (st.bHere) {
            cl["ansible_connection"] = "local"; // instead of ssh to the machine on which Ansible runs
        }
        clVariables[st.csAddress] = cl;
    }

    // With the variables of all machines under "_meta" the script is not run again for each machine.
    return {{"_meta", {{"hostvars", clVariables}}},
            {"all", {{"children", {"ungrouped", "velmo"}}}},
            {"velmo", {{"hosts", clHosts}}}};
}
