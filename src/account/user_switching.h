// Windows' button for switching to another user, which its machine-wide policy takes from the sign-in screen.
#pragma once

namespace kiosk::account {

// Sets the policy and marks it, durably and first, as the service's. One that stands there without the mark, whatever
// it says, is the administrator's and stays.
void HideFastUserSwitching();

// Deletes the policy, and then the mark, if it is the service's.
void RestoreFastUserSwitching();

}  // namespace kiosk::account
