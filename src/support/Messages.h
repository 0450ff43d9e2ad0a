#pragma once

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
    {3857,
     u"A worker thread could not be started. Check the limits on memory and on the number of threads of the "
     u"service (LimitNPROC, TasksMax), then restart the manager."},
    {3858,
     u"The operation could not be carried out. The lines below tell what was refused: correct it and try "
     u"again."},
    {3859,
     u"A setting could not be written to DXConf.ini. Check that the disk is not full and that the file and "
     u"its folder can be written to, then try again."},
    {4003,
     u"The service \"%2\" cannot be registered or looked up with the system's service manager: %1. Check "
     u"that the system's init tools work and that you are root, then try again."},
    {4004,
     u"The service could not be started. Look for its last entries in the system log, correct what they "
     u"report, then try again."},
    {4009, u"The server \"%1\" was not registered: its port %2!u! is already used by the server \"%3\". Set "
           u"another "
           u"AccessPort in its DXConf.ini, then register it again."},
    {4010,
     u"The server \"%1\" (%2) was not registered: its name is already registered for %3. Give it another "
     u"name, or uninstall the other server first, then register it again."},
    {4012,
     u"The service \"%1\" could not be started. The system log tells what failed: correct it, then start the "
     u"service again."},
    {4139, u"This must be done by root: run the command again as root, for example with sudo."},
    {25304,
     u"The limit on core dumps could not be raised, so a crash may leave no core file. Start the manager as "
     u"root or raise the limit of its service (LimitCORE)."},
    {25305,
     u"The user \"%1\" that the manager is to run as does not exist on this machine. Create this user or "
     u"correct its name in DXConf.ini, then start the manager again."},
    {25306,
     u"The manager could not switch to the user \"%1\". Start it as root, or correct the user in DXConf.ini, "
     u"then start it again."},
    {25627,
     u"The port %1!u! cannot be opened. Check that no other program uses it (\"ss -lnp\" shows which). Right "
     u"after a conversation the system may hold the port of a manager that has ended for about a minute: in "
     u"that case wait, then start the manager again."},
    {65535, u"ZANTOR RES BLOC UTF16 STOP"},
};
