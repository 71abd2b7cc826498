#include "account/unlock_token.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/lock.h"
#include "win32/random.h"

#include <array>

namespace kiosk::account {
namespace {

constexpr std::size_t kTokenBytes = 16;
constexpr std::size_t kTokenLength = 2 * kTokenBytes;

struct Unlocked {
  bool valid = false;
  std::array<char, kTokenLength> token{};
  DWORD session = 0;
  std::uint64_t expiry = 0;  // tick count
};

// Connection threads and the control handler come here. In place and without a destructor: nothing of a token is left
// on the heap.
win32::Lock unlockLock{win32::LockRank::kLeaf};
Unlocked unlocked GUARDED_BY(unlockLock);

void Clear() noexcept REQUIRES(unlockLock) {
  SecureZeroMemory(unlocked.token.data(), unlocked.token.size());
  unlocked.valid = false;
  unlocked.session = 0;
  unlocked.expiry = 0;
}

}  // namespace

text::Secret NewUnlockToken(DWORD session) {
  std::array<std::uint8_t, kTokenBytes> bytes{};
  if (!win32::FillRandom(bytes.data(), bytes.size())) {
    return {};
  }
  text::Secret token(text::Hex(bytes));
  SecureZeroMemory(bytes.data(), bytes.size());
  const win32::LockGuard guard(unlockLock);
  Clear();
  token.Get().copy(unlocked.token.data(), unlocked.token.size());
  unlocked.session = session;
  unlocked.expiry = win32::TickCount() + kUnlockSeconds * 1000;
  unlocked.valid = true;
  return token;
}

bool CheckUnlockToken(const std::string& token, DWORD session) {
  const win32::LockGuard guard(unlockLock);
  if (!unlocked.valid || token.size() != kTokenLength || session != unlocked.session) {
    return false;
  }
  if (win32::TickCount() >= unlocked.expiry) {
    Clear();
    log::Log(log::kNotice, log::kKiosk, "terminal settings locked: the unlock expired");
    return false;
  }
  unsigned difference = 0;
  for (std::size_t i = 0; i < kTokenLength; ++i) {
    difference |= static_cast<unsigned>(token[i] ^ unlocked.token[i]);
  }
  return difference == 0;
}

void DropUnlock() noexcept {
  const win32::LockGuard guard(unlockLock);
  Clear();
}

void OnSessionSignedOut(DWORD session) {
  const win32::LockGuard guard(unlockLock);
  if (unlocked.valid && session == unlocked.session) {
    Clear();
    log::Log(log::kNotice, log::kKiosk, "terminal settings locked: session %lu signed out", session);
  }
}

}  // namespace kiosk::account
