#pragma once

#include "Settings.h"

#include <string>

/// Asks the manager, through its local pipe, to register this server: name, own executable, port. Returns the
/// manager's answer as it came (empty: done), or why there is none. Waits at most 10 seconds.
std::string registerServer(const Settings& settings);
