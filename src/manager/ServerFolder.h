#pragma once

#include <string>

class CService;
class CServiceManager;

/// Deletes the folder of a server's executable with all that is in it, when it is certain whose folder that
/// is: the executable is a regular file in it, or is gone and the unit file or the init script still says
/// exactly its path; no other registered service's executable lies in the folder or below it; and nothing
/// that had to be asked for that remained open. True when the folder was deleted, the error's text as
/// CDiskFile::bDeleteTree leaves it. False when it was not, or not whole; the log then says why.
bool bDeleteServerFolder(CServiceManager* pclManager, CService& clService, std::wstring* pcsSystemMessage);
