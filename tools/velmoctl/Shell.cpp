// Runs commands line by line, each like a command line of its own.

#include "velmoctl/Commands.h"
#include "velmoctl/Complete.h"
#include "velmoctl/Prompt.h"
#include "velmoctl/Terminal.h"
#include "velmoctl/Waiting.h"

#include <csignal>
#include <iostream>
#include <optional>
#include <unistd.h>

namespace {
/// Runs one line; returns its exit status. Ctrl-C ends the running command but not the shell; SIGTERM and
/// SIGHUP end both.
EExit eRunLine(const std::string& csLine, const STOptions& stDefaults)
{
    EExit eResult = EExit::USAGE;
    try {
        const std::vector<std::string> tWords = tWordsOf(csLine);
        if (tWords.empty()) {
            return EExit::DONE;
        }
        if (tWords[0] == "shell") {
            throw CFailure(EExit::USAGE, "this is the shell");
        }
        eResult = eExecute(tWords, stDefaults);
    } catch (const CFailure& clFailure) {
        std::cerr << "velmoctl: " << clFailure.what() << "\n";
    }

    // Taken also when no signal ended the command, or it would end the next one.
    if (const int nSignal = CInterrupts::nTake(); nSignal != 0 && nSignal != SIGINT) {
        throw CFailure(EExit::INTERRUPTED, "interrupted");
    }

    return eResult;
}

bool bEnds(const std::string& csLine)
{
    return csLine == "quit" || csLine == "exit";
}
} // namespace

/// The exit status is that of the last line. The shell's own options are the defaults of its lines.
EExit eShell(const STCall& stCall)
{
    CInterrupts::Catch();
    CPrompt clPrompt("velmo> ", [&stCall](const std::vector<std::string>& tWords) {
        return tComplete(tWords, stCall.stOptions);
    });

    if (bTerminal(STDIN_FILENO)) {
        std::cout << "Commands of velmoctl; \"help\" lists them, \"quit\" or Ctrl-D ends.\n";
    }

    EExit eResult = EExit::DONE;
    for (;;) {
        const std::optional<std::string> csLine = clPrompt.csRead();
        if (!csLine.has_value() || bEnds(*csLine)) {
            return eResult;
        }
        eResult = eRunLine(*csLine, stCall.stOptions);
    }
}
