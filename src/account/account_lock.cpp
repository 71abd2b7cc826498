#include "account/account_lock.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/security.h"
#include "win32/stop.h"

namespace kiosk::account {
namespace {

constexpr wchar_t kMutexName[] = L"Global\\NorvaneKioskAccount";
// Protected; SYSTEM and Administrators alone may take it or look at it.
constexpr wchar_t kMutexSddl[] = L"D:P(A;;GA;;;SY)(A;;GA;;;BA)";
constexpr DWORD kLongestWait = 20'000;
constexpr DWORD kPoll = 100;

win32::Lock accountLock{win32::LockRank::kAccount};

// What an owner that was killed leaves behind is taken over as it stands: every operation recognises a half.
bool TryTake(HANDLE mutex) noexcept {
  const DWORD result = WaitForSingleObject(mutex, 0);
  return result == WAIT_OBJECT_0 || result == WAIT_ABANDONED;
}

}  // namespace

win32::Lock& AccountLock() noexcept { return accountLock; }

CrossProcessGuard::CrossProcessGuard() noexcept {
  const win32::SecurityDescriptor descriptor(kMutexSddl);
  SECURITY_ATTRIBUTES attributes = descriptor.Attributes();
  mutex_.Reset(descriptor ? CreateMutexW(&attributes, FALSE, kMutexName) : nullptr);
  if (!mutex_) {
    log::Log(log::kWarn, log::kKiosk, "kiosk account: going on without the lock between processes (%lu)",
             GetLastError());
    return;
  }
  const win32::Deadline deadline(kLongestWait);
  while (!(held_ = TryTake(mutex_.Get()))) {
    if (deadline.Passed()) {
      log::Log(log::kWarn, log::kKiosk, "kiosk account: going on without the lock between processes (%lu)",
               static_cast<unsigned long>(WAIT_TIMEOUT));
      return;
    }
    if (win32::WaitOrStop(nullptr, kPoll) == win32::WaitResult::kStop) {
      mayGoOn_ = false;
      return;
    }
  }
}

CrossProcessGuard::~CrossProcessGuard() {
  if (held_) {
    ReleaseMutex(mutex_.Get());
  }
}

}  // namespace kiosk::account
