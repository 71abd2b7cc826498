#include "account/kiosk_profile.h"

#include "lockdown/kiosk_policies.h"
#include "log/log.h"
#include "win32/stop.h"

#include <userenv.h>

namespace kiosk::account {
namespace {

constexpr int kAttempts = 10;
constexpr DWORD kRetry = 1000;

}  // namespace

bool DeleteKioskProfile(const std::wstring& sid) {
  lockdown::UnloadLeftOverHive();
  DWORD error = ERROR_SUCCESS;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    if (DeleteProfileW(sid.c_str(), nullptr, nullptr) != 0) {
      return true;
    }
    error = GetLastError();
    if (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) {
      return true;
    }
    if (attempt < kAttempts && win32::WaitOrStop(nullptr, kRetry) == win32::WaitResult::kStop) {
      break;
    }
  }
  log::Log(log::kError, log::kKiosk, "cannot delete the kiosk profile (%lu)", error);
  return false;
}

}  // namespace kiosk::account
