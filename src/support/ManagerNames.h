#pragma once

#include <cstdint>

/// The fixed names and numbers under which init systems, servers and tools find the manager and its servers.
/// They stand here once, for the manager and for velmoctl. None can be changed: installed services, scripts
/// and programs of others rely on each. A name that is needed in both widths has its narrow twin ("...A")
/// below it.

/// The manager's own service; also what the manager calls itself in messages.
inline constexpr wchar_t g_szManagerService[] = L"VelmoManager";
inline constexpr char g_szManagerServiceA[] = "VelmoManager";

/// Prefix of the name of every database server's service.
inline constexpr wchar_t g_szServerPrefix[] = L"DXCS-";
inline constexpr char g_szServerPrefixA[] = "DXCS-";

/// A service that counts as a server without the prefix.
inline constexpr wchar_t g_szDefaultServer[] = L"dxsql";
inline constexpr char g_szDefaultServerA[] = "dxsql";

/// Port of the TCP server and of discovery over UDP.
inline constexpr std::uint16_t g_wManagerPort = 4999;

/// The FIFO through which database servers register.
inline constexpr char g_szManagerPipe[] = "/tmp/__pipe_velmomanager__";
/// Start of the name of a client's FIFO for its reply; the number in the client's request follows in decimal.
inline constexpr char g_szReplyPipePrefix[] = "/tmp/__pipe_velmomanager_";
