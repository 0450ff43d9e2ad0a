#pragma once

#include "velmoctl/Failure.h"
#include "velmoctl/Options.h"

#include <string>
#include <vector>

/// The input of a command.
struct STCall
{
    STOptions stOptions;
    std::vector<std::string> tArguments; ///< as many as the command's row says, bytes as they were given
    Milliseconds clTimeout; ///< the user's, or else the command's own; velmoctl(1) says what each limits
};

/// Runs one command line (without the program's name); the defaults hold for what it does not say. Writes
/// results to standard output, reports every CFailure on standard error, and returns the exit status.
EExit eExecute(const std::vector<std::string>& tArguments, const STOptions& stDefaults);

/// Names of all commands that a user types.
std::vector<std::string> tCommandNames();
/// The kinds of words that a command takes ("NAME...", "[NAME...]" where none may be given); empty for none,
/// and for an unknown command.
std::string csArgumentKinds(const std::string& csCommand);

/// The commands themselves; velmoctl(1) says what each prints and how it exits. Each writes its results, and
/// throws CFailure for what ends it as a whole. What only some machines or servers refuse it reports itself.
EExit eInfo(const STCall& stCall);
EExit eList(const STCall& stCall);
EExit eStatus(const STCall& stCall);
EExit eCluster(const STCall& stCall);
EExit eCheck(const STCall& stCall);
/// Reports a failure of check as monitoring systems expect it: one line, status "unknown".
EExit eTellMonitoring(const CFailure& clFailure);
EExit eMetrics(const STCall& stCall);
EExit eStart(const STCall& stCall);
EExit eStop(const STCall& stCall);
EExit eRestart(const STCall& stCall);
EExit eUninstall(const STCall& stCall);
EExit eDiscover(const STCall& stCall);
EExit eRegister(const STCall& stCall);
EExit eWatch(const STCall& stCall);
EExit eLint(const STCall& stCall);
EExit eShell(const STCall& stCall);
EExit eComplete(const STCall& stCall);
