// One check-in: tells the portal that the terminal is alive, and takes over what the portal decides for it.
#pragma once

#include "json/value.h"
#include "text/secret.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace kiosk::portal {

enum class DeviceStatus : std::int32_t { kNone = 0, kRevoked = 1, kUnknown = 2 };

struct CheckInResult {
  DeviceStatus deviceStatus = DeviceStatus::kNone;  // from a 401
  text::Secret exitPassword;                        // as the reply has it; empty when it has none
  std::string error;                                // empty on success
  json::Value branding;                             // null when absent
  std::string tenantId;                             // empty when absent
};

// Posts a check-in with `token` as bearer and takes a good reply over: "UnknownSince" is deleted; "SignIn",
// "TerminalName" and the policies (portal/policies.h) are written where they differ, which is logged. Any other answer
// changes nothing, nor does a good one that arrives when the terminal is no longer enrolled with that token. Never
// throws for a failure: the error text says what went wrong. The caller hands the result to HandleDeviceStatus.
CheckInResult CheckIn(const std::string& token);

// The error of a good answer that was not taken over, since the terminal is not enrolled with that token any more.
inline constexpr char kNoLongerEnrolled[] = "no longer enrolled";

// True for the texts that CheckInResult::error can hold, as opposed to the failure codes of other areas that
// "LastError" may hold as well.
bool IsCheckInError(std::string_view text);

}  // namespace kiosk::portal
