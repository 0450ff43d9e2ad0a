#pragma once

#include "service/ServiceName.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// Readers for the manager's reply lines (docs/protocol.md). Pure functions: they take a line without its CR
/// LF, in well-formed UTF-8, and trust nothing else in it. No result means that the line is no such reply.

/// A server as the manager lists it.
struct STServer
{
    std::string csName;
    std::string csPort; ///< as configured: not always a number
};

/// The reply to INFO, and the answer to a search over UDP; the texts are the manager's own.
struct STInfo
{
    std::string csVersion;
    std::string csSystem;
    std::string csKernel;
    std::string csProcessors;
    std::string csMemory;
    std::vector<STServer> tServers;
};

/// A reply with an error code. Its text comes from errno in the manager; it may be empty or about something
/// else.
struct STRefusal
{
    unsigned int nCode;
    std::string csText;
};

std::optional<STRefusal> stReadRefusal(std::string_view csLine);
std::optional<STInfo> stReadInfo(std::string_view csLine);
/// The state as one lower-case word.
std::optional<std::string> csReadState(std::string_view csLine);
/// True for the reply of a command that has done what it was asked for; never false. Optional because tAskFor
/// takes readers of that form.
std::optional<bool> bReadDone(std::string_view csLine);
/// Name of the cluster manager's machine; empty: the server is in no cluster.
std::optional<std::string> csReadCluster(std::string_view csLine);

/// What was asked of whom, for messages.
struct STAsked
{
    std::string csHost;              ///< empty: this machine
    std::string csServer;            ///< empty: the question was about no server
    const char* pszUnknownHint = ""; ///< what else it may mean that the server is unknown
};

/// What an error code means for a server, with the text of the reply where it helps, and what to do about it.
std::string csRefusalWords(const STRefusal& stRefusal, const STAsked& stAsked);

/// The name of a server's service: "DXCS-" and the server's name.
CServiceName clServiceOf(const std::string& csServer);
/// The unit of a server's service as systemctl takes it: its file's name without the type. For messages: a
/// name that no unit can have is returned with the prefix, otherwise unchanged.
std::string csUnitName(const std::string& csServer);
