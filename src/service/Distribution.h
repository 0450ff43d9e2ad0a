#pragma once

#include "service/ServiceManagerUnix.h"

#include <string>

/// Family of a machine without systemd, found by the release files in "/etc"; DISTRI_DEBIAN when none of them
/// decides.
EDistri eFindDistribution();

/// Family by the text of "/etc/redhat-release": DISTRI_REDHAT unless it names a relative.
EDistri eFamilyInRedHatRelease(std::string csText);
/// Family by the text of "/etc/version": DISTRI_UNKNOWN when it names none.
EDistri eFamilyInVersion(std::string csText);
