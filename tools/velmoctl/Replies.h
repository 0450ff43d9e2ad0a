#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The manager's reply lines, read. Pure functions: a line without its end comes in, well-formed UTF-8;
/// nothing else in it is trusted. No result means that the line is no such reply.

/// A server as the manager lists it.
struct STServer
{
    std::string csName;
    std::string csPort; ///< as configured: not always a number
};

struct STInfo
{
    std::string csVersion;
    std::string csSystem;
    std::string csKernel;
    std::string csProcessors;
    std::string csMemory;
    std::vector<STServer> tServers;
};

/// A reply with an error code; the system's text may be empty, and is not always about the error.
struct STRefusal
{
    unsigned int nCode;
    std::string csText;
};

std::optional<STRefusal> stReadRefusal(std::string_view csLine);
std::optional<STInfo> stReadInfo(std::string_view csLine);
/// The state as one lower-case word.
std::optional<std::string> csReadState(std::string_view csLine);
/// Name of the cluster manager's machine; empty: the server is in no cluster.
std::optional<std::string> csReadCluster(std::string_view csLine);

/// Who was asked for what, for messages.
struct STAsked
{
    std::string csHost;              ///< empty: this machine
    std::string csServer;            ///< empty: for none
    const char* pszUnknownHint = ""; ///< what else it may mean that the server is unknown
};

/// What an error code means for a server, with the system's text where it helps, and what to do about it.
std::string csRefusalWords(const STRefusal& stRefusal, const STAsked& stAsked);

/// The unit of a server's service: its name without the type.
std::string csUnitName(const std::string& csServer);
/// A word for a shell's command line, in quotation marks where it needs them.
std::string csShellWord(const std::string& csWord);
