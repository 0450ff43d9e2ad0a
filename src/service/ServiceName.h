#pragma once

#include <string>

/// How a service's name appears in the system. Pure functions.

/// Script name: every blank becomes "_", tab "__", "/" and "." "-".
std::wstring csScriptName(const std::wstring& csName);

/// Unit name: every blank becomes "_", every tab "__". False (and the unit name untouched) for a name that
/// cannot be handed to systemctl as the one argument that it is: it holds a pattern character, a slash, a
/// double quote or a control character, a word behind a ";" or "|" (both stand as blanks when a unit is
/// looked up) begins with "-", it ends like a whole unit name (".service", ".timer"...), or it is longer than
/// a unit name can be.
bool bUnitName(const std::wstring& csName, std::wstring* pcsUnit);

/// Whether a unit name can stand in the text of a unit and be read back as it is: in there a backslash, a
/// percent sign, a dollar and a quote mean something else.
bool bWritableInUnit(const std::wstring& csUnit);

/// File name of a unit: bytes that a unit name cannot hold are written as systemctl itself writes them,
/// "\xNN".
std::wstring csUnitFileName(const std::wstring& csUnit);

/// The opposite for names that systemctl prints: "\xNN" sequences that stand for characters beyond ASCII are
/// decoded, all others are left.
std::wstring csUnitFromListing(std::string_view csListed);
