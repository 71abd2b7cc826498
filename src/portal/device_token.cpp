#include "portal/device_token.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "state/registry.h"
#include "win32/handle.h"

#include <dpapi.h>

namespace kiosk::portal {
namespace {

constexpr wchar_t kDescription[] = L"Norvane kiosk device token";

// A removal of an earlier enrolment may be pending. Its mark beside a token means a teardown that was cut short and is
// done again as a whole; so it is noted before that the token is the newer of the two.
bool AnnounceNewerToken() {
  return !state::ReadState(state::kTeardownPending) || state::WriteStateDword(state::kTeardownSuperseded, 1);
}

}  // namespace

text::Secret ReadDeviceToken() {
  auto stored = state::ReadState(state::kDeviceToken);
  if (!stored || stored->type != state::kDeviceToken.type || stored->bytes.empty()) {
    return {};
  }
  DATA_BLOB blob{static_cast<DWORD>(stored->bytes.size()), stored->bytes.data()};
  DATA_BLOB plain{};
  if (CryptUnprotectData(&blob, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &plain) == 0) {
    log::Log(log::kError, log::kKiosk, "cannot unprotect the device token (%lu)", GetLastError());
    return {};
  }
  const win32::LocalMemory owner(plain.pbData);
  text::Secret token(std::string(reinterpret_cast<const char*>(plain.pbData), plain.cbData));
  SecureZeroMemory(plain.pbData, plain.cbData);
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
  // comes first.
  if (state::ProtectStateKey().what != nullptr || !AnnounceNewerToken() ||
      state::WriteExisting(state::kStateKey, state::kDeviceToken.name, state::kDeviceToken.type, blob.pbData,
                           blob.cbData) != ERROR_SUCCESS) {
    return false;
  }
  state::DeleteStateValue(state::kUnknownSince);
  const bool superseded = state::DeleteStateValue(state::kTeardownPending);
  if (superseded || state::DeleteStateValue(state::kDeviceToken)) {
    state::DeleteStateValue(state::kTeardownSuperseded);
  }
  state::FlushStateKey();
  return superseded;
}

}  // namespace kiosk::portal
