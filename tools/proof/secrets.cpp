#include "tools/proof/secrets.h"

#include "text/text.h"
#include "tools/proof/files.h"
#include "win32/owners.h"

#include <dpapi.h>

#include <vector>

namespace proof {
namespace {

using kiosk::win32::LocalMemory;
using kiosk::win32::LsaHandle;

LSA_UNICODE_STRING Counted(const void* text, std::size_t bytes) {
  const auto size = static_cast<USHORT>(bytes);
  return {size, size, static_cast<wchar_t*>(const_cast<void*>(text))};
}

DWORD OpenPolicy(ACCESS_MASK access, LsaHandle& policy) {
  LSA_OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof(attributes);
  return LsaNtStatusToWinError(LsaOpenPolicy(nullptr, &attributes, access, policy.Put()));
}

}  // namespace

DWORD ReadSecret(const std::wstring& name, std::string& sealed) {
  sealed.clear();
  LsaHandle policy;
  if (const DWORD error = OpenPolicy(POLICY_GET_PRIVATE_INFORMATION, policy); error != ERROR_SUCCESS) {
    return error;
  }
  LSA_UNICODE_STRING key = Counted(name.data(), name.size() * sizeof(wchar_t));
  LSA_UNICODE_STRING* data = nullptr;
  const DWORD error = LsaNtStatusToWinError(LsaRetrievePrivateData(policy.Get(), &key, &data));
  if (error != ERROR_SUCCESS || data == nullptr) {
    return error == ERROR_FILE_NOT_FOUND ? ERROR_SUCCESS : error;
  }
  const kiosk::win32::LsaMemory owned(data);
  DATA_BLOB plain{data->Length, reinterpret_cast<BYTE*>(data->Buffer)};
  DATA_BLOB blob{};
  const bool done = CryptProtectData(&plain, L"NorvaneProof", nullptr, nullptr, nullptr,
                                     CRYPTPROTECT_UI_FORBIDDEN | CRYPTPROTECT_LOCAL_MACHINE, &blob) != 0;
  const DWORD failure = GetLastError();
  SecureZeroMemory(data->Buffer, data->Length);
  if (!done) {
    return failure;
  }
  const LocalMemory sealedBytes(blob.pbData);
  sealed = kiosk::text::Hex(std::vector<BYTE>(blob.pbData, blob.pbData + blob.cbData));
  return ERROR_SUCCESS;
}

bool StoreSecret(const std::wstring& name, const std::string& sealed) {
  LsaHandle policy;
  std::vector<BYTE> bytes = Bytes(sealed);
  DATA_BLOB blob{static_cast<DWORD>(bytes.size()), bytes.data()};
  DATA_BLOB plain{};
  if (OpenPolicy(POLICY_CREATE_SECRET, policy) != ERROR_SUCCESS ||
      (!sealed.empty() &&
       CryptUnprotectData(&blob, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN, &plain) == 0)) {
    return false;
  }
  const LocalMemory owned(plain.pbData);
  LSA_UNICODE_STRING key = Counted(name.data(), name.size() * sizeof(wchar_t));
  LSA_UNICODE_STRING data = Counted(plain.pbData, plain.cbData);
  const DWORD error = LsaNtStatusToWinError(LsaStorePrivateData(policy.Get(), &key, sealed.empty() ? nullptr : &data));
  if (plain.pbData != nullptr) {
    SecureZeroMemory(plain.pbData, plain.cbData);
  }
  return error == ERROR_SUCCESS || (sealed.empty() && error == ERROR_FILE_NOT_FOUND);
}

}  // namespace proof
