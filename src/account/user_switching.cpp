#include "account/user_switching.h"

#include "account/winlogon.h"
#include "state/borrowed_settings.h"
#include "state/kiosk_state.h"

namespace kiosk::account {
namespace {

constexpr state::BorrowedValue kHidden{kSystemPoliciesKey, L"HideFastUserSwitching"};
constexpr state::BorrowedSettings kBorrowed{state::kOwnsHideFastUserSwitching, {&kHidden, 1}};

bool IsOurs() { return state::ReadStateDword(kBorrowed.mark) != 0; }

}  // namespace

void HideFastUserSwitching() {
  state::RawValue present;
  const bool absent = state::ReadValue(kHidden.key, kHidden.name, present) == ERROR_FILE_NOT_FOUND;
  const bool owned = IsOurs();
  if (!owned && !absent) {
    return;
  }
  const bool set = (owned || kBorrowed.Mark()) && state::WriteDword(kHidden.key, kHidden.name, 1);
  if (!set && absent) {
    kBorrowed.Forget();
  }
}

void RestoreFastUserSwitching() {
  if (IsOurs()) {
    state::PutBack(kHidden);
    kBorrowed.Forget();
  }
}

}  // namespace kiosk::account
