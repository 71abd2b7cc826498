// What an administrator set for the central log; read once when logging starts.
#pragma once

#include "win32/http_call.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace kiosk::log::shipper {

using Thumbprint = std::array<std::uint8_t, 20>;  // SHA-1 of a certificate

struct Settings {
  win32::HttpTarget endpoint;                    // "LogEndpoint"
  std::optional<win32::HttpTarget> configUrl;    // "LogConfigUrl"; empty: none, or not https
  bool configUrlWrong = false;                   // there is one, and it is not https
  bool certificateWanted = false;                // "ClientCertThumbprint" is set, to whatever
  std::optional<Thumbprint> thumbprint;          // empty also when that is no thumbprint
  bool certificateRequired = false;              // "ClientCertRequired"
  std::uint64_t spoolCap = 64ULL * 1024 * 1024;  // "SpoolCapMB", in bytes
};

// Empty when there is no "LogEndpoint"; `problem` then says why, when there is one that cannot be used.
std::optional<Settings> ReadSettings(const char*& problem);

// 40 hexadecimal digits. Blanks between them, and the invisible mark in front of them, are passed over: they come with
// a thumbprint that somebody copied from Windows' own certificate window. Empty for anything else.
std::optional<Thumbprint> ParseThumbprint(const std::wstring& text);

// An https URL as a target; empty for anything else.
std::optional<win32::HttpTarget> HttpsTarget(const std::wstring& url);

}  // namespace kiosk::log::shipper
