#pragma once

/// Where messages go: the setting ErrorLogMode, and the mode of a logger.
enum ELogMode : int
{
    LOG_MODE_OFF = 0,
    LOG_MODE_SYSTEM = 1, ///< the system log
    LOG_MODE_FILE = 2,
};
