#include "portal/revocation.h"

#include "account/teardown.h"
#include "enrolment/enrolment.h"
#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"

#include <cstdint>

namespace kiosk::portal {
namespace {

constexpr std::uint64_t kToleratedUnknown = std::uint64_t{24} * 3600 * win32::kFileTimeSecond;

// True when the token has been unknown for too long. The first time, and instead of a stamp that lies in the future
// because the clock was set back, the moment is noted down.
bool UnknownForTooLong(const std::string& tokenUsed) {
  const win32::LockGuard guard(enrolment::ReplyLock());
  if (!enrolment::StillEnrolled(tokenUsed)) {
    return false;
  }
  const std::uint64_t now = win32::FileTimeNow();
  const std::uint64_t since = state::ReadStateQword(state::kUnknownSince);
  if (since != 0 && since <= now) {
    return now - since >= kToleratedUnknown;
  }
  state::WriteStateQword(state::kUnknownSince, now);
  log::Log(
      log::kWarn, log::kKiosk,
      "check-in: AuthSystem does not recognise this terminal's token; kiosk mode stays unless that lasts 24 hours");
  return false;
}

}  // namespace

bool HandleDeviceStatus(const CheckInResult& result, const std::string& tokenUsed) {
  switch (result.deviceStatus) {
    case DeviceStatus::kRevoked:
      log::Log(log::kWarn, log::kKiosk, "check-in: the portal says this terminal was removed (revoked)");
      account::RemoveKioskMode(false, "removed in the portal (401, status revoked)", &tokenUsed);
      return true;
    case DeviceStatus::kUnknown:
      if (!UnknownForTooLong(tokenUsed)) {
        return false;
      }
      log::Log(log::kWarn, log::kKiosk, "check-in: the token has been unknown to AuthSystem for over 24 hours");
      account::RemoveKioskMode(false, "the portal has not known this terminal for 24 hours (401, status unknown)",
                               &tokenUsed);
      return true;
    case DeviceStatus::kNone:
      break;
  }
  return false;
}

}  // namespace kiosk::portal
