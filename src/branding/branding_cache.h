#pragma once

#include "json/value.h"

#include <string>

namespace kiosk::branding {

// Brings the branding folder in line with a good check-in's `branding`: downloads the photos that are missing, removes
// what does not belong there, and writes "branding.json", with `tenantId` in it, where it differs; without a branding
// (null), removes the folder. Called by the worker, which holds no lock. `token` is the one that the check-in used and
// serves for the downloads; when it is no longer the stored one, or a teardown has begun, the run ends where it stands.
// A run that finds everything in place changes nothing and logs nothing.
//
// Downloads take a minute or so of a run, not more than one photo beyond it; the rest follows in the next runs. A photo
// that failed is tried again in the next run, and from its second failure on after 1 to 10 minutes. A service stop ends
// a download at once.
void ApplyBranding(const json::Value& branding, const std::string& tenantId, const std::string& token);

}  // namespace kiosk::branding
