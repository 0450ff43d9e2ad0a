#pragma once

#include "velmoctl/Json.h"
#include "velmoctl/Replies.h"

#include <cstdint>
#include <string>
#include <vector>

/// A manager that answered the search.
struct STFound
{
    std::string csAddress;
    bool bHere; ///< it is this machine's own
    STInfo stInfo;
};

/// Name and port of each server.
Json clJsonServers(const std::vector<STServer>& tServers);

/// The managers found, for programs: velmoctl's own form, which is stable.
Json clJsonFound(const std::vector<STFound>& tFound);
/// File-based service discovery: the node_exporter of each machine, with labels about its manager.
Json clPrometheusTargets(const std::vector<STFound>& tFound, std::uint16_t wExporterPort);
/// What an inventory script prints for --list: a group "velmo", and variables of its machines below "_meta".
Json clAnsibleInventory(const std::vector<STFound>& tFound);
