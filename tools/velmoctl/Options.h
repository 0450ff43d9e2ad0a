#pragma once

#include "support/ManagerNames.h"
#include "velmoctl/Waiting.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace CLI {
class App;
}

/// The options of one command line, with their defaults. Texts are the bytes that the user gave.
struct STOptions
{
    std::vector<std::string> tHosts;      ///< lists of machines, as given; nothing at all: this machine
    std::string csHostsFile;              ///< empty: the one that VELMO_HOSTS names, if any
    std::vector<std::string> tGroups;     ///< of the hosts file
    std::uint16_t wPort = g_wManagerPort; ///< the manager's is fixed; another one is for tunnels and tests
    double dTimeout = 0;                  ///< seconds; 0: the command's own
    unsigned int nJobs = 16;              ///< conversations at once, in all
    bool bJson = false;
    bool bNoColor = false;
    bool bVersion = false;

    bool bLong = false;
    bool bNames = false;
    bool bNoHeader = false;
    bool bFailIfNotRunning = false;
    std::vector<std::string> tStates;  ///< lists of states
    std::vector<std::string> tColumns; ///< lists of columns
    std::vector<std::string> tSort;    ///< lists of columns

    double dInterval = 2;    ///< seconds
    unsigned int nCount = 0; ///< rounds of a watch; 0: without end

    bool bWait = false;
    bool bYes = false;
    bool bDryRun = false;
    bool bDeleteFiles = false;

    std::string csWarning = "0"; ///< range of servers that do not run
    std::string csCritical = "0";
    std::vector<std::string> tIgnore; ///< lists of patterns

    std::string csOutput; ///< a file
    bool bPrometheus = false;
    bool bAnsible = false;
    std::uint16_t wExporterPort = 9100;
};

/// Adds the options of a command to a parser, which writes their values to the structure when it parses a
/// line; the structure must live as long. Without a command: adds all options, and the help shows only those
/// that every command has.
void AddOptions(std::string_view csCommand, CLI::App* pclParser, STOptions* pstOptions);

/// Full names ("--host") of the options of a command, the common ones included. Without a command: the common
/// ones.
std::vector<std::string> tOptionsOf(std::string_view csCommand);
/// The kind of value that an option ("--host" or "-H") takes ("HOST", "FILE"...); empty for none, and for an
/// unknown option.
std::string csValueKind(std::string_view csOption);

/// A port from the command line. Throws CFailure (USAGE) for anything but a number from 1 to 65535.
std::uint16_t wReadPort(const std::string& csWord);

/// The items of all the lists, which commas separate, as UTF-8; empty items are left out.
std::vector<std::string> tItems(const std::vector<std::string>& tLists);

/// A text from the command line as UTF-8: bytes that are not UTF-8 are read as Windows-1252.
std::string csArgument(const std::string& csBytes);
