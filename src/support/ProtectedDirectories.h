#pragma once

#include <string_view>

/// Whether a directory can be one server's own folder and may thus be deleted as a whole, judged by its name
/// alone. The path is a resolved one: absolute, without symbolic links, "." or "..", doubled or ending
/// slashes; any other answers false. False too for "/", what lies directly under it, and the places that the
/// system shares.
bool bOwnFolder(std::string_view csRealPath);
