#include "enrolment/enrolment.h"

#include "enrolment/device_token.h"
#include "state/kiosk_state.h"

namespace kiosk::enrolment {
namespace {

win32::Lock replyLock{win32::LockRank::kLeaf};

}  // namespace

bool StillEnrolled(const std::string& tokenUsed) {
  return !tokenUsed.empty() && !state::FlagIsOn(state::kTeardownPending) && ReadDeviceToken().Get() == tokenUsed;
}

bool IsEnrolled() { return !state::FlagIsOn(state::kTeardownPending) && state::TokenIsStored(); }

win32::Lock& ReplyLock() noexcept { return replyLock; }

}  // namespace kiosk::enrolment
