// The same in a machine without any service manager: what differs there, the tests find out themselves.
#include "machine_races.cpp" // NOLINT(bugprone-suspicious-include)
