#pragma once

#include "commands.h"

namespace kioskctl {

// Writes a folder "NorvaneKiosk-support-<date>-<time>" into `parent` (the current folder when empty): what is needed to
// find out why a terminal misbehaves, with no token and no password in it. Works without the service.
int SupportBundle(const std::string& parent);

}  // namespace kioskctl
