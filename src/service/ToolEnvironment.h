#pragma once

#include <string>
#include <vector>

/// The environment of a tool, null-terminated. An init script has the daemon's. systemctl, whose output is
/// read, has no SYSTEMD_* variable of whoever started the daemon (a log level would mix debug lines in), and
/// gets no colours, no pager and no translation. The texts are the environment's own.
std::vector<char*> tToolEnvironment(const std::string& csProgram);
