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
/// - nothing of this had to be left open.
///
/// True when the folder was deleted, with the text of the error as CDiskFile::bDeleteTree leaves it. False
/// when it was not deleted, or not whole; the log then says why,
/// unless there was no such folder.
bool bDeleteServerFolder(CServiceManager* pclManager, CService& clService, std::wstring* pcsSystemMessage);
