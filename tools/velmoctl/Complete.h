#pragma once

#include "velmoctl/Options.h"

#include <string>
#include <vector>

/// Candidates for the last word of a command line: commands, options, servers that the manager lists,
/// machines and groups of the hosts file... None for files, which shells complete themselves. Throws only
/// CFailure (INTERRUPTED).
std::vector<std::string> tComplete(const std::vector<std::string>& tWords, const STOptions& stDefaults);
