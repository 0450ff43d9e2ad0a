#pragma once

#include "velmoctl/Waiting.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// What the options of one command line say.
struct STOptions
{
    std::string csHost;                    ///< empty: this machine
    std::uint16_t wPort = 4999;            ///< the manager's is fixed; another one is for tests
    std::optional<Milliseconds> clTimeout; ///< for one answer; none: the command's own
    Milliseconds clInterval{2000};
    unsigned int nCount = 0; ///< rounds of a watch; 0: without end
    bool bJson = false;
    bool bNoColor = false;
    bool bYes = false;
    bool bDryRun = false;
    bool bDeleteFiles = false;
    bool bNames = false;
    bool bHelp = false;
    bool bVersion = false;
};

/// Options, and the words that are none: the command and its arguments, bytes as they were given.
struct STCommandLine
{
    STOptions stOptions;
    std::vector<std::string> tWords;
    std::vector<std::string> tUsed; ///< names of the options
};

/// Reads a command line (without the program's name). Options may stand anywhere and give their values in the
/// same word ("--host=x") or the next; "--" ends them. What is not given stays as in the defaults. Throws
/// CFailure (USAGE).
STCommandLine stParse(const std::vector<std::string>& tArguments, const STOptions& stDefaults);

/// Names of the options that a command has, those of all commands included, in the order of the help.
std::vector<std::string> tOptionsOf(std::string_view csCommand);
/// One line of help for each option.
std::string csOptionsHelp();

/// A port from the command line. Throws CFailure (USAGE) for anything but a number from 1 to 65535.
std::uint16_t wReadPort(const std::string& csWord);

/// A text from the command line as UTF-8: what is not is taken for Windows-1252.
std::string csArgument(const std::string& csBytes);
