#include "enrolment/pairing_code.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace kiosk::enrolment {
namespace {

win32::Lock pairingLock{win32::LockRank::kPairing};

// Plain memory, without a destructor: connection threads may outlive main. A longer code than
// fits could never be answered, since only codes of 8 characters are.
std::array<char, 64> pending GUARDED_BY(PairingLock()){};
std::size_t pendingLength GUARDED_BY(PairingLock()) = 0;

}  // namespace

win32::Lock& PairingLock() noexcept { return pairingLock; }

std::string PendingPairingCode() { return {pending.data(), pendingLength}; }

void SetPendingPairingCode(const std::string& code) {
  pending.fill('\0');
  pendingLength = std::min(code.size(), pending.size());
  std::copy_n(code.begin(), pendingLength, pending.begin());
}

}  // namespace kiosk::enrolment
