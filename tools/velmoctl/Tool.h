#pragma once

#include "velmoctl/Waiting.h"

#include <string>
#include <vector>

/// What a program of this machine left behind.
struct STToolResult
{
    int nStatus = -1;     ///< exit status; -1: it did not run, did not end in time, or a signal ended it
    std::string csOutput; ///< standard output and error
};

/// Runs a program without a shell, in the C locale, with nothing to read. It is killed when it takes too
/// long. Throws CFailure (INTERRUPTED).
STToolResult stRunTool(const std::vector<std::string>& tArguments, Milliseconds clTime);
