#include "log/shipper/shipper_settings.h"

#include "log/log_settings.h"
#include "log/shipper/remote_config.h"
#include "text/text.h"
#include "win32/wide_text.h"

namespace kiosk::log::shipper {
namespace {

constexpr std::uint64_t kMegabyte = std::uint64_t{1024} * 1024;

}  // namespace

std::optional<Thumbprint> ParseThumbprint(const std::wstring& text) {
  Thumbprint thumbprint{};
  std::size_t digits = 0;
  for (const wchar_t c : text) {
    if (c == L' ' || c == 0x200E) {
      continue;
    }
    const int digit = text::HexDigit(c);
    if (digit < 0 || digits == 2 * thumbprint.size()) {
      return std::nullopt;
    }
    std::uint8_t& byte = thumbprint[digits++ / 2];
    byte = static_cast<std::uint8_t>(unsigned{byte} << 4U | static_cast<unsigned>(digit));
  }
  return digits == 2 * thumbprint.size() ? std::optional(thumbprint) : std::nullopt;
}

std::optional<win32::HttpTarget> HttpsTarget(const std::wstring& url) {
  win32::HttpTarget target;
  if (!IsHttpsUrl(win32::ToNarrow(url)) || !win32::CrackHttpUrl(url, target) || !target.secure) {
    return std::nullopt;
  }
  return target;
}

std::optional<Settings> ReadSettings(const char*& problem) {
  const std::wstring url = ReadSettingString(L"LogEndpoint");
  if (url.empty()) {
    return std::nullopt;
  }
  const std::optional<win32::HttpTarget> endpoint = HttpsTarget(url);
  if (!endpoint) {
    problem = "\"LogEndpoint\" is no https URL";
    return std::nullopt;
  }
  Settings settings;
  settings.endpoint = *endpoint;
  if (const std::wstring config = ReadSettingString(L"LogConfigUrl"); !config.empty()) {
    settings.configUrl = HttpsTarget(config);
    settings.configUrlWrong = !settings.configUrl;
  }
  if (const std::wstring text = ReadSettingString(L"ClientCertThumbprint"); !text.empty()) {
    settings.certificateWanted = true;
    settings.thumbprint = ParseThumbprint(text);
  }
  settings.certificateRequired = ReadSettingNumber(L"ClientCertRequired").value_or(0) != 0;
  if (const std::uint32_t cap = ReadSettingNumber(L"SpoolCapMB").value_or(0); cap != 0) {
    settings.spoolCap = cap * kMegabyte;
  }
  return settings;
}

}  // namespace kiosk::log::shipper
