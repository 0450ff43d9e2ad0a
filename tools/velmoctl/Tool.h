#pragma once

#include "velmoctl/Waiting.h"

#include <string>
#include <vector>

/// What a program of this machine left behind.
struct STToolResult
{
    int nStatus = -1;     ///< exit status; -1: it did not run, did not end in time, or a signal ended it
    std::string csOutput; ///< standard output and error together, up to about 4 MiB; empty if it did not run
};

/// Runs a program (the first word, looked up in PATH) without a shell, in the C locale, with nothing to read,
/// and waits for it. It is killed when it takes longer than clTime, and when a caught signal arrives: then
/// throws CFailure (INTERRUPTED). What it leaves running in the background stays. Any thread.
STToolResult stRunTool(const std::vector<std::string>& tArguments, Milliseconds clTime);
