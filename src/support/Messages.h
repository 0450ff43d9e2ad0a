#pragma once

#include "support/MessageIds.h"

#include <cstdint>
#include <string_view>

/// One message text. Inserts are those of FormatMessageW.
struct STMessage
{
    std::uint16_t wId;
    std::wstring_view csText;
};

/// All messages, in ascending order of their ids. The last is the end mark, which clients can load as well.
///
/// Some texts serve as printf formats where they are logged or printed: no text may have a "%" other than
/// that of its inserts.
inline constexpr STMessage s_tMessages[] = {
    {nUserErrorMessage(USER_ERROR_THREAD),
     L"A worker thread could not be started. Check the limits on memory and on the number of threads of the "
     L"service (LimitNPROC, TasksMax), then restart the manager."},
    {nUserErrorMessage(USER_ERROR_SETTING),
     L"A setting could not be written to DXConf.ini. Check that the disk is not full and that the file and "
     L"its folder can be written to, then try again."},
    {MSG_CANNOT_REGISTER,
     L"The service \"%2\" cannot be registered or looked up with the system's service manager: %1. Check "
     L"that the system's init tools work and that you are root, then try again."},
    {MSG_CANNOT_START,
     L"The service could not be started. Look for its last entries in the system log, correct what they "
     L"report, then try again."},
    {MSG_SERVER_PORT_TAKEN,
     L"The server \"%1\" was not registered: its port %2!u! is already used by the server \"%3\". Set "
     L"another AccessPort in its DXConf.ini, then register it again."},
    {MSG_SERVER_NAME_TAKEN,
     L"The server \"%1\" (%2) was not registered: its name is already registered for %3. Give it another "
     L"name, or uninstall the other server first, then register it again."},
    {MSG_START_FAILED,
     L"The service \"%1\" could not be started. The system log tells what failed: correct it, then start the "
     L"service again."},
    {MSG_ROOT_ONLY, L"This must be done by root: run the command again as root, for example with sudo."},
    {MSG_SETTINGS_TOO_LARGE, L"The settings file %1 is larger than 16 MiB and is not read, so the defaults "
                             L"hold. Replace it by a file "
                             L"that holds the settings only."},
    {MSG_NO_CORE_DUMPS,
     L"The limit on core dumps could not be raised, so a crash may leave no core file. Start the manager as "
     L"root or raise the limit of its service (LimitCORE)."},
    {MSG_UNKNOWN_USER,
     L"The user \"%1\" that the manager is to run as does not exist on this machine. Create this user or "
     L"correct its name in DXConf.ini, then start the manager again."},
    {MSG_USER_REFUSED,
     L"The manager could not switch to the user \"%1\". Start it as root, or correct the user in DXConf.ini, "
     L"then start it again."},
    {MSG_PORT_NOT_OPENED,
     L"The port %1!u! cannot be opened. Check that no other program uses it (\"ss -lnp\" shows which), then "
     L"start the manager again."},
    {MSG_SERVICES_NOT_ASKED,
     L"The services of this machine could not be listed or asked: %1. What needed that was not done. Check "
     L"that the system's init tools work (\"systemctl list-units\" shows it), then try again."},
    {MSG_FOLDER_KEPT, L"The files of the service \"%1\" (%2) were not deleted, or not all of them: %3. Look "
                      L"into its folder and "
                      L"delete by hand what is not needed any more."},
    {65535, L"ZANTOR RES BLOC UTF16 STOP"},
};
