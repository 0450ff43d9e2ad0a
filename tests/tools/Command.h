#pragma once

#include <string>

/// What a shell command left behind.
struct STCommandResult
{
    int nStatus; ///< exit status; 128 + the signal's number when a signal ended it; -1: it could not be run
    std::string csOutput; ///< standard output and standard error, as they came
};

/// Runs a command line with /bin/sh, standard input empty, and waits until it and whoever keeps its output
/// open have ended. For tests only: the command line is trusted.
STCommandResult stRun(const std::string& csCommand);
