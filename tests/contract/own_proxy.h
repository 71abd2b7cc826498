// The computer's own default proxy, for cases that set another one.
#pragma once

#include "state/registry.h"
#include "tests/contract/contract.h"
#include "win32/handle.h"

namespace contract {

// Puts the setting back at its end, value for value: a proxy that nobody ever set has none, and to set "none" leaves
// one.
class OwnProxy {
 public:
  OwnProxy() {
    kiosk::win32::RegistryKey key;
    noKey_ = RegOpenKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, KEY_READ, key.Put()) == ERROR_FILE_NOT_FOUND;
    const LSTATUS read = kiosk::state::ReadValue(kKey, kValue, value_);
    noValue_ = read == ERROR_FILE_NOT_FOUND;
    Asked::Needs(noValue_ || read == ERROR_SUCCESS, "the default proxy");
  }
  OwnProxy(const OwnProxy&) = delete;
  OwnProxy& operator=(const OwnProxy&) = delete;
  ~OwnProxy() {
    if (noKey_) {
      RegDeleteKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, 0);
    } else if (noValue_) {
      RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kKey, kValue);
    } else {
      kiosk::state::WriteValue(kKey, kValue, value_);
    }
  }

 private:
  static constexpr wchar_t kKey[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
  static constexpr wchar_t kValue[] = L"WinHttpSettings";
  bool noKey_ = false;
  bool noValue_ = false;
  kiosk::state::RawValue value_;
};

}  // namespace contract
