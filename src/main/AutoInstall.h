#pragma once

class CServiceManager;

/// Makes sure that the current manager is registered as a system service and runs: installs it, replaces an
/// older one, and once one that belongs to another installation and does not start. False after a message on
/// the terminal. The installer flag changes nothing here.
bool bAutoInstall(int bInstaller, CServiceManager* pclManager);

/// Stops and removes the manager's service and deletes the executable; the servers and the settings stay.
/// False, after a message, for users other than root only.
bool bUnInstall(CServiceManager* pclManager);
