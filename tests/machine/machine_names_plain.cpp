// The same in a machine without any service manager.
#include "machine_names.cpp" // NOLINT(bugprone-suspicious-include)
