#pragma once

#include "velmoctl/Options.h"

#include <string>
#include <vector>

/// What could stand in the place of the last of a command line's words: commands, options, servers that the
/// manager lists, machines and groups of the hosts file... Nothing for files, which shells complete
/// themselves. Never throws but CFailure (INTERRUPTED).
std::vector<std::string> tComplete(const std::vector<std::string>& tWords, const STOptions& stDefaults);
