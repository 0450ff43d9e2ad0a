#pragma once

#include "service/ServiceManagerUnix.h"

#include <string>

/// Family of a machine without systemd, found by the release files in "/etc"; DISTRI_DEBIAN when none of them
/// decides.
EDistri eFindDistribution();

/// Family by the text of "/etc/redhat-release": DISTRI_REDHAT unless the text names a relative. Case does not
/// count, here and below.
EDistri eFamilyInRedHatRelease(std::string csText);
/// Family by the text of "/etc/version": DISTRI_UNKNOWN when the text names none.
EDistri eFamilyInVersion(std::string csText);
