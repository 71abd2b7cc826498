// Secrets of the local security authority.
#include "tests/contract/contract.h"

#include <ntsecapi.h>

namespace contract {
namespace {

constexpr std::uint32_t kNotFound = 0xC0000034;  // STATUS_OBJECT_NAME_NOT_FOUND

LSA_UNICODE_STRING Text(std::wstring& text) {
  const auto bytes = static_cast<USHORT>(text.size() * sizeof(wchar_t));
  return {bytes, bytes, text.data()};
}

class Policy {
 public:
  explicit Policy(ACCESS_MASK access) {
    LSA_OBJECT_ATTRIBUTES attributes{};
    const NTSTATUS status = LsaOpenPolicy(nullptr, &attributes, access, &handle_);
    SetLastError(LsaNtStatusToWinError(status));
    Asked::Needs(status >= 0, "the policy of the local security authority");
  }
  Policy(const Policy&) = delete;
  Policy& operator=(const Policy&) = delete;
  ~Policy() { LsaClose(handle_); }

  NTSTATUS Store(std::wstring* secret) {
    std::wstring name = L"NorvaneProof";
    LSA_UNICODE_STRING key = Text(name);
    LSA_UNICODE_STRING data = secret != nullptr ? Text(*secret) : LSA_UNICODE_STRING{};
    return LsaStorePrivateData(handle_, &key, secret != nullptr ? &data : nullptr);
  }
  NTSTATUS Retrieve(std::wstring& secret) {
    std::wstring name = L"NorvaneProof";
    LSA_UNICODE_STRING key = Text(name);
    LSA_UNICODE_STRING* data = nullptr;
    const NTSTATUS status = LsaRetrievePrivateData(handle_, &key, &data);
    if (data != nullptr) {
      secret.assign(data->Buffer, data->Length / sizeof(wchar_t));
      SecureZeroMemory(data->Buffer, data->Length);
      LsaFreeMemory(data);
    }
    return status;
  }

 private:
  LSA_HANDLE handle_ = nullptr;
};

void SecretsComeBack(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine stores no secrets");
  Policy policy(POLICY_CREATE_SECRET | POLICY_GET_PRIVATE_INFORMATION);
  const AtEnd remove([&] { policy.Store(nullptr); });
  for (const wchar_t* text : {L"first secret", L"second"}) {
    std::wstring secret = text;
    asked.Same("LsaStorePrivateData", policy.Store(&secret), 0);
    std::wstring read;
    asked.Same("LsaRetrievePrivateData", policy.Retrieve(read), 0);
    asked.Same("the secret", read, text);
  }
}

void DeletedSecretsAreGone(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine stores no secrets");
  Policy policy(POLICY_CREATE_SECRET | POLICY_GET_PRIVATE_INFORMATION);
  std::wstring secret = L"secret";
  policy.Store(&secret);
  asked.Same("deleting", policy.Store(nullptr), 0);
  std::wstring read;
  asked.Same("reading then", policy.Retrieve(read), kNotFound);
  asked.Same("deleting once more", policy.Store(nullptr), kNotFound);
}

void RightsCount(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine checks no rights to secrets");
  Policy policy(POLICY_GET_PRIVATE_INFORMATION);
  std::wstring secret = L"secret";
  asked.Same("storing without the right", policy.Store(&secret), 0xC0000022);
}

constexpr Case kCases[] = {
    {"store", "a secret comes back whole, the newer in place of the older", SecretsComeBack},
    {"delete", "a deleted secret is not there, and says so", DeletedSecretsAreGone},
    {"rights", "a handle without the right stores nothing", RightsCount},
};

}  // namespace

extern const Group kLsa;
const Group kLsa{"lsa", kCases};

}  // namespace contract
