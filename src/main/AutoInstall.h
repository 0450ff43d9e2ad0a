#pragma once

class CServiceManager;

/// Makes sure that a current manager is registered as a system service and runs. Installs this one when none
/// is registered or an older one is. A registered service that does not start is replaced by this one, once,
/// unless it is this executable's own. False after a message on the terminal. bInstaller is passed on as
/// the style of the messages, which a terminal ignores.
bool bAutoInstall(int bInstaller, CServiceManager* pclManager);

/// Stops and removes the manager's service and deletes this executable; the servers and the settings stay.
/// Best effort: returns false, after a message, only for users other than root.
bool bUnInstall(CServiceManager* pclManager);
