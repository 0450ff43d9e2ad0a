#pragma once

#include <string_view>

/// Whether a directory can be one server's own folder and may thus be deleted as a whole, judged by its name
/// alone. False for "/", for anything directly under it, and for the places that the operating system or
/// several programs share. False, too, for a path that is not resolved: it must be absolute and have no ".",
/// "..", doubled or trailing slash, and the caller has followed its symbolic links.
bool bOwnFolder(std::string_view csRealPath);
