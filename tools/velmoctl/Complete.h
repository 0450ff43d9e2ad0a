#pragma once

#include "velmoctl/Options.h"

#include <string>
#include <vector>

/// Candidates for the last word of a command line: commands, options, servers that the manager lists,
/// machines and groups of the hosts file... Each is the whole word, with what was typed of it. None for
/// files, which shells complete themselves. Asks managers for at most two seconds. Throws only CFailure
/// (INTERRUPTED).
std::vector<std::string> tComplete(const std::vector<std::string>& tWords, const STOptions& stDefaults);
