// The tenant's branding as the kiosk shell gets to read it, made of whatever the portal sent. Portable: no Windows
// here.
#pragma once

#include "json/value.h"

#include <optional>
#include <string>
#include <vector>

namespace kiosk::branding {

inline constexpr std::size_t kMaxPhotos = 16;

// {"displayName", "signInSubtitle", "photos": [{"sha256", "contentType", "width", "height", "credit"}], "tenantId"}:
// texts and sizes only where the portal sent them in the right type, at most kMaxPhotos photos with different digests,
// "photos" and "tenantId" always. Empty when `portal` is no object: the tenant has no branding.
std::optional<json::Value> NormaliseBranding(const json::Value& portal, const std::string& tenantId);

// The digests of the photos of a normalised branding, in their order.
std::vector<std::string> PhotoDigests(const json::Value& branding);

}  // namespace kiosk::branding
