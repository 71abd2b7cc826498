#include "branding/branding_record.h"

#include "text/text.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>

namespace kiosk::branding {
namespace {

constexpr std::size_t kDigestLength = 64;

bool IsDigest(const std::string& text) {
  return text.size() == kDigestLength && std::all_of(text.begin(), text.end(), text::IsLowerHexDigit);
}

void CopyText(const json::Value& from, const char* key, json::Value& to) {
  if (const json::Value& text = json::Member(from, key); text.IsString()) {
    to.Set(key, text);
  }
}

// Not a number where the value is none.
double AsNumber(const json::Value& value) {
  constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
  if (!value.IsString()) {
    return value.IsNumber() ? value.number() : kNone;
  }
  const std::string_view text = text::TrimSpace(value.text());
  const char* const end = text.data() + text.size();
  double number = kNone;
  const auto read = std::from_chars(text.data(), end, number);
  return read.ec == std::errc() && read.ptr == end ? number : kNone;
}

void CopyNumber(const json::Value& from, const char* key, json::Value& to) {
  if (const double number = AsNumber(json::Member(from, key)); std::isfinite(number)) {
    to.Set(key, number);
  }
}

json::Value NormalisePhotos(const json::Value& portal) {
  json::Value photos = json::Value::Array();
  for (const json::Value& sent : portal.items()) {
    const json::Value& digest = json::Member(sent, "sha256");
    const auto& kept = photos.items();
    if (kept.size() == kMaxPhotos) {
      break;
    }
    if (!IsDigest(digest.text()) || std::any_of(kept.begin(), kept.end(), [&](const json::Value& photo) {
          return json::Member(photo, "sha256") == digest;
        })) {
      continue;
    }
    json::Value photo = json::Value::Object();
    photo.Set("sha256", digest);
    CopyText(sent, "contentType", photo);
    CopyNumber(sent, "width", photo);
    CopyNumber(sent, "height", photo);
    CopyText(sent, "credit", photo);
    photos.Append(std::move(photo));
  }
  return photos;
}

}  // namespace

std::optional<json::Value> NormaliseBranding(const json::Value& portal, const std::string& tenantId) {
  if (!portal.IsObject()) {
    return std::nullopt;
  }
  json::Value branding = json::Value::Object();
  CopyText(portal, "displayName", branding);
  CopyText(portal, "signInSubtitle", branding);
  branding.Set("photos", NormalisePhotos(json::Member(portal, "photos")));
  branding.Set("tenantId", tenantId);
  return branding;
}

std::vector<std::string> PhotoDigests(const json::Value& branding) {
  std::vector<std::string> digests;
  for (const json::Value& photo : json::Member(branding, "photos").items()) {
    digests.push_back(json::Member(photo, "sha256").text());
  }
  return digests;
}

}  // namespace kiosk::branding
