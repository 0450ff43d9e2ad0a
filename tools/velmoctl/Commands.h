#pragma once

#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"

#include <string>
#include <vector>

/// What a command is given.
struct STCall
{
    STOptions stOptions;
    std::vector<std::string> tArguments; ///< as many as the command's row says, bytes as they were given
    Milliseconds clTimeout;              ///< for one answer: the user's, or else the command's own
};

/// Runs one command line, its options included. Results go to standard output; throws CFailure.
EExit eExecute(const STCommandLine& stLine);
/// The same, but failures are told on standard error and their exit status is returned.
EExit eExecuteAndTell(const std::vector<std::string>& tArguments, const STOptions& stDefaults);

/// Names of all commands.
std::vector<std::string> tCommandNames();

/// The commands themselves; tables of what they answer are in velmoctl(1).
EExit eInfo(const STCall& stCall);
EExit eList(const STCall& stCall);
EExit eStatus(const STCall& stCall);
EExit eCluster(const STCall& stCall);
EExit eStart(const STCall& stCall);
EExit eUninstall(const STCall& stCall);
EExit eDiscover(const STCall& stCall);
EExit eRegister(const STCall& stCall);
EExit eWatch(const STCall& stCall);
EExit eLint(const STCall& stCall);
EExit eShell(const STCall& stCall);
