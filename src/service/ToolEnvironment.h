#pragma once

#include <string>
#include <vector>

/// The environment of a tool, null-terminated. An init script gets the daemon's. systemctl, whose output is
/// read, gets no colours, no pager, no translation, and none of the variables of whoever started the daemon
/// that change how it reads its arguments or what it prints (SYSTEMD_*, POSIXLY_CORRECT). The pointers are
/// valid while nobody changes the daemon's environment.
std::vector<char*> tToolEnvironment(const std::string& csProgram);
