#pragma once

/// Numbers of the manager's messages by name; Messages.h has the texts and their inserts. The log and
/// docs/operations.md name messages by these numbers, so they never change.
enum EMessage : unsigned int
{
    MSG_CANNOT_REGISTER = 4003,
    MSG_CANNOT_START = 4004,
    MSG_SERVER_PORT_TAKEN = 4009,
    MSG_SERVER_NAME_TAKEN = 4010,
    MSG_START_FAILED = 4012,
    MSG_ROOT_ONLY = 4139,
    MSG_SETTINGS_TOO_LARGE = 4140,
    MSG_NO_CORE_DUMPS = 25304,
    MSG_UNKNOWN_USER = 25305,
    MSG_USER_REFUSED = 25306,
    MSG_PORT_NOT_OPENED = 25627,
    MSG_SERVICES_NOT_ASKED = 25630,
    MSG_FOLDER_KEPT = 25631,
};

/// "User errors" of the manager's module: what a CXError says went wrong.
enum EUserError : unsigned int
{
    USER_ERROR_THREAD = 1,  ///< a worker thread cannot be started
    USER_ERROR_SETTING = 3, ///< a setting cannot be written
};

/// Number of the message of "user error n" of a module: the numbers from 3856 on are theirs.
constexpr unsigned int nUserErrorMessage(unsigned int nCode)
{
    return 3856 + nCode;
}
