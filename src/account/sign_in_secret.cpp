#include "account/sign_in_secret.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/hash.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <string_view>

namespace kiosk::account {
namespace {

LSA_UNICODE_STRING Counted(const wchar_t* text, std::size_t length) {
  const auto bytes = static_cast<USHORT>(length * sizeof(wchar_t));
  return {bytes, static_cast<USHORT>(bytes + sizeof(wchar_t)), const_cast<wchar_t*>(text)};
}

LSA_UNICODE_STRING SecretName() {
  static constexpr std::wstring_view kName = L"DefaultPassword";
  return Counted(kName.data(), kName.size());
}

NTSTATUS OpenPolicy(ACCESS_MASK access, win32::LsaHandle& policy) {
  LSA_OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof(attributes);
  return LsaOpenPolicy(nullptr, &attributes, access, policy.Put());
}

std::string DigestOf(const wchar_t* text, std::size_t bytes) {
  return win32::Sha256Hex({reinterpret_cast<const char*>(text != nullptr ? text : L""), bytes});
}

// An empty text deletes the value.
bool NoteDigests(const std::wstring& digests) {
  return (digests.empty() ? state::DeleteStateValue(state::kAutoLogonDigest)
                          : state::WriteStateString(state::kAutoLogonDigest, digests)) &&
         state::FlushStateKey();
}

}  // namespace

bool StoreAutoLogonSecret(const wchar_t* password, std::size_t length) {
  win32::LsaHandle policy;
  const NTSTATUS opened = OpenPolicy(POLICY_CREATE_SECRET, policy);
  if (opened < 0) {
    log::Log(log::kError, log::kKiosk, "LsaOpenPolicy failed (%lu)", LsaNtStatusToWinError(opened));
    return false;
  }
  LSA_UNICODE_STRING name = SecretName();
  LSA_UNICODE_STRING data = Counted(password, length);
  const NTSTATUS stored = LsaStorePrivateData(policy.Get(), &name, password != nullptr ? &data : nullptr);
  const ULONG error = LsaNtStatusToWinError(stored);
  if (error == ERROR_SUCCESS || (password == nullptr && error == ERROR_FILE_NOT_FOUND)) {
    return true;
  }
  log::Log(log::kError, log::kKiosk, "LsaStorePrivateData failed (%lu)", error);
  return false;
}

const char* StoreKioskSecret(const wchar_t* password, std::size_t length) {
  const std::wstring before = state::ReadStateString(state::kAutoLogonDigest);
  const std::wstring coming = win32::ToWide(DigestOf(password, length * sizeof(wchar_t)));
  if (coming.empty() || !NoteDigests(before.empty() ? coming : before + L' ' + coming)) {
    return "state_write_failed";
  }
  if (!StoreAutoLogonSecret(password, length)) {
    NoteDigests(before);
    return "lsa_failed";
  }
  NoteDigests(coming);  // where it fails the old one stands as well, and opens nothing any more
  return nullptr;
}

std::string PresentSecretDigest() {
  win32::LsaHandle policy;
  LSA_UNICODE_STRING name = SecretName();
  LSA_UNICODE_STRING* data = nullptr;
  if (OpenPolicy(POLICY_GET_PRIVATE_INFORMATION, policy) < 0 ||
      LsaRetrievePrivateData(policy.Get(), &name, &data) < 0 || data == nullptr) {
    return {};
  }
  const win32::LsaMemory owner(data);
  std::string digest = DigestOf(data->Buffer, data->Length);
  if (data->Buffer != nullptr) {
    SecureZeroMemory(data->Buffer, data->Length);
  }
  return digest;
}

void NoteSecretAsOurs() {
  if (const std::string digest = PresentSecretDigest(); !digest.empty()) {
    NoteDigests(win32::ToWide(digest));
  }
}

}  // namespace kiosk::account
