#pragma once

#include <string>

class CService;
class CServiceManager;

/// Deletes the folder of a server's executable with all that is in it, but only when it is certain whose
/// folder that is:
///
/// - the executable is a regular file in it; or it is gone, and the unit file or init script still says
///   exactly its path;
/// - no other registered service's executable lies in the folder or below it;
/// - none of this had to be guessed: what cannot be found out counts against the deletion.
///
/// True when the folder was deleted. False when it was not, or not completely; the log then says why, unless
/// the service has no executable or its folder does not exist. *pcsSystemMessage gets the C library's text
/// for the error that stopped the deletion, empty without one. It is unchanged when no deletion was begun.
bool bDeleteServerFolder(CServiceManager* pclManager, CService& clService, std::wstring* pcsSystemMessage);
