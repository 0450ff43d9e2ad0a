#pragma once

#include "service/ServiceManagerUnix.h"

#include <string>

/// Family of a machine without systemd, told by the release files in "/etc"; DISTRI_DEBIAN where nothing
/// tells.
EDistri eFindDistribution();

/// What the text of "/etc/redhat-release" says; DISTRI_REDHAT unless it names a relative.
EDistri eFamilyInRedHatRelease(std::string csText);
/// What the text of "/etc/version" says; DISTRI_UNKNOWN when it names no family that it can.
EDistri eFamilyInVersion(std::string csText);
