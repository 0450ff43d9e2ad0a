#pragma once

#include "support/MessageIds.h"

#include <cstdint>
#include <string_view>

/// One message text. Inserts are those of FormatMessageW; what is plain English stays within Windows-1252.
struct STMessage
{
    std::uint16_t wId;
    std::u16string_view csText;
};

/// All messages, in ascending order of their ids, between the two marker records of the resource block. Texts
/// of messages that are written to the system log or printed serve there as printf formats: they hold no "%"
/// but that of their inserts.
inline constexpr STMessage s_tMessages[] = {
    {257, u"ZANTOR RES BLOC UTF16 START"},
    {nUserErrorMessage(USER_ERROR_THREAD),
     u"A worker thread could not be started. Check the limits on memory and on the number of threads of the "
     u"service (LimitNPROC, TasksMax), then restart the manager."},
    {nUserErrorMessage(USER_ERROR_SETTING),
     u"A setting could not be written to DXConf.ini. Check that the disk is not full and that the file and "
     u"its folder can be written to, then try again."},
    {MSG_CANNOT_REGISTER,
     u"The service \"%2\" cannot be registered or looked up with the system's service manager: %1. Check "
     u"that the system's init tools work and that you are root, then try again."},
    {MSG_CANNOT_START,
     u"The service could not be started. Look for its last entries in the system log, correct what they "
     u"report, then try again."},
    {MSG_SERVER_PORT_TAKEN,
     u"The server \"%1\" was not registered: its port %2!u! is already used by the server \"%3\". Set "
     u"another AccessPort in its DXConf.ini, then register it again."},
    {MSG_SERVER_NAME_TAKEN,
     u"The server \"%1\" (%2) was not registered: its name is already registered for %3. Give it another "
     u"name, or uninstall the other server first, then register it again."},
    {MSG_START_FAILED,
     u"The service \"%1\" could not be started. The system log tells what failed: correct it, then start the "
     u"service again."},
    {MSG_ROOT_ONLY, u"This must be done by root: run the command again as root, for example with sudo."},
    {MSG_SETTINGS_TOO_LARGE, u"The settings file %1 is larger than 16 MiB and is not read, so the defaults "
                             u"hold. Replace it by a file "
                             u"that holds the settings only."},
    {MSG_NO_CORE_DUMPS,
     u"The limit on core dumps could not be raised, so a crash may leave no core file. Start the manager as "
     u"root or raise the limit of its service (LimitCORE)."},
    {MSG_UNKNOWN_USER,
     u"The user \"%1\" that the manager is to run as does not exist on this machine. Create this user or "
     u"correct its name in DXConf.ini, then start the manager again."},
    {MSG_USER_REFUSED,
     u"The manager could not switch to the user \"%1\". Start it as root, or correct the user in DXConf.ini, "
     u"then start it again."},
    {MSG_PORT_NOT_OPENED,
     u"The port %1!u! cannot be opened. Check that no other program uses it (\"ss -lnp\" shows which), then "
     u"start the manager again."},
    {MSG_SERVICES_NOT_ASKED,
     u"The services of this machine could not be listed or asked: %1. What needed that was not done. Check "
     u"that the system's init tools work (\"systemctl list-units\" shows it), then try again."},
    {MSG_FOLDER_KEPT, u"The files of the service \"%1\" (%2) were not deleted, or not all of them: %3. Look "
                      u"into its folder and "
                      u"delete by hand what is not needed any more."},
    {65535, u"ZANTOR RES BLOC UTF16 STOP"},
};
