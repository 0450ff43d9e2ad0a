#pragma once

#include <string_view>

/// Finds the text of one of the manager's messages (nId is taken as its low 16 bits). False when there is
/// none. Static data; any thread.
bool bGetResAnsi602(unsigned int nId, std::wstring_view& csText);
