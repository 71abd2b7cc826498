#include "enrolment/device_token.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/handle.h"

#include <dpapi.h>

#include <atomic>

namespace kiosk::enrolment {
namespace {

constexpr wchar_t kDescription[] = L"Norvane kiosk device token";

// Whether the log knows that a token is there and cannot be read: one line for as long as that lasts, whoever asks.
std::atomic<bool> unreadable{false};

void LogUnreadable(const char* what, DWORD error) {
  if (!unreadable.exchange(true)) {
    log::Log(log::kError, log::kKiosk, "cannot %s the device token (%lu)", what, error);
  }
}

// A removal of an earlier enrolment may be pending. Its mark beside a token means a teardown that was cut short and is
// done again as a whole; so it is noted before that the token is the newer of the two.
bool AnnounceNewerToken() {
  return !state::ReadState(state::kTeardownPending) || state::WriteStateDword(state::kTeardownSuperseded, 1);
}

}  // namespace

TokenRead ReadDeviceToken(text::Secret& token) {
  state::RawValue stored;
  const LSTATUS status = state::ReadState(state::kDeviceToken, stored);
  if (status != ERROR_SUCCESS && status != ERROR_FILE_NOT_FOUND) {
    LogUnreadable("read", static_cast<DWORD>(status));
    return TokenRead::kUnreadable;
  }
  if (stored.type != state::kDeviceToken.type || stored.bytes.empty()) {
    unreadable = false;
    return TokenRead::kNone;
  }
  DATA_BLOB blob{static_cast<DWORD>(stored.bytes.size()), stored.bytes.data()};
  DATA_BLOB plain{};
  if (CryptUnprotectData(&blob, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &plain) == 0) {
    LogUnreadable("unprotect", GetLastError());
    return TokenRead::kUnreadable;
  }
  const win32::LocalMemory owner(plain.pbData);
  token = text::Secret(std::string(reinterpret_cast<const char*>(plain.pbData), plain.cbData));
  SecureZeroMemory(plain.pbData, plain.cbData);
  unreadable = false;
  return TokenRead::kRead;
}

text::Secret ReadDeviceToken() {
  text::Secret token;
  ReadDeviceToken(token);
  return token;
}

bool StoreDeviceToken(const std::string& token) {
  DATA_BLOB plain{static_cast<DWORD>(token.size()), reinterpret_cast<BYTE*>(const_cast<char*>(token.data()))};
  DATA_BLOB blob{};
  if (CryptProtectData(&plain, kDescription, nullptr, nullptr, nullptr,
                       CRYPTPROTECT_UI_FORBIDDEN | CRYPTPROTECT_LOCAL_MACHINE, &blob) == 0) {
    log::Log(log::kError, log::kKiosk, "cannot protect the device token (%lu)", GetLastError());
    return false;
  }
  const win32::LocalMemory owner(blob.pbData);
  // Any process of this machine can unprotect the blob, so only the key's own protection keeps it from others: that
  // comes first. And no moment may know the new token with the time since when an earlier one was unknown.
  if (state::ProtectStateKey().what != nullptr || !AnnounceNewerToken() ||
      !state::DeleteStateValue(state::kUnknownSince) ||
      state::WriteState(state::kDeviceToken, state::kDeviceToken.type, blob.pbData, blob.cbData) != ERROR_SUCCESS) {
    return false;
  }
  const bool superseded = state::DeleteStateValue(state::kTeardownPending);
  if (superseded || state::DeleteStateValue(state::kDeviceToken)) {
    state::DeleteStateValue(state::kTeardownSuperseded);
  }
  state::FlushStateKey();
  return superseded;
}

}  // namespace kiosk::enrolment
