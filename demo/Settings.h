#pragma once

#include <string>

/// The settings of the sample server, from the DXConf.ini beside its executable. Read once, at start.
struct Settings
{
    std::string executable; ///< own path, as the kernel knows it
    std::string name;       ///< [INIT] Name, in the file's code page
    unsigned short port;    ///< [INIT] AccessPort; 4900 unless set
    bool failAtStart;       ///< [DEMO] FailAtStart=1: the start ends with an error
    bool ignoreTerm;        ///< [DEMO] IgnoreTerm=1: only SIGKILL ends the server
    bool registers;         ///< [DEMO] Register=1: asks the manager to register it, once it runs
    bool changesArguments;  ///< [DEMO] ChangeArguments=1: shows its state in the place of its arguments
    int startDelay;         ///< [DEMO] StartDelay: milliseconds before it listens
    int crashAfter;         ///< [DEMO] CrashAfter: aborts so many milliseconds after its start; -1 is never
};

/// A missing file or key gives the default.
Settings readSettings();
