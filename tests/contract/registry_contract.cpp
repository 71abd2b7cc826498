// Keys and values of the registry.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <sddl.h>

namespace contract {
namespace {

using kiosk::win32::LocalMemory;
using kiosk::win32::RegistryKey;

constexpr wchar_t kKey[] = L"SOFTWARE\\NorvaneProof";

// A key that goes, with all below it, at the end.
class OwnKey {
 public:
  OwnKey() {
    SetLastError(static_cast<DWORD>(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, REG_OPTION_NON_VOLATILE,
                                                    KEY_ALL_ACCESS, nullptr, key_.Put(), nullptr)));
    Asked::Needs(static_cast<bool>(key_), "a key below HKLM");
  }
  OwnKey(const OwnKey&) = delete;
  OwnKey& operator=(const OwnKey&) = delete;
  ~OwnKey() { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kKey); }
  [[nodiscard]] HKEY Get() const noexcept { return key_.Get(); }

 private:
  RegistryKey key_;
};

void ValuesWantRoom(Asked& asked) {
  const OwnKey key;
  asked.Same("RegSetValueExW",

             RegSetValueExW(key.Get(), L"Text", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"four"), 10), ERROR_SUCCESS);
  BYTE small[4];
  DWORD size = sizeof(small);
  DWORD type = 0;
  asked.Same("4 bytes", RegQueryValueExW(key.Get(), L"Text", nullptr, &type, small, &size), ERROR_MORE_DATA);
  asked.Same("the size that it tells", size, 10);
  size = 0;
  asked.Same("no buffer", RegQueryValueExW(key.Get(), L"Text", nullptr, &type, nullptr, &size), ERROR_SUCCESS);
  asked.Same("its type", type, REG_SZ);
  asked.Same("a value that is not there", RegQueryValueExW(key.Get(), L"None", nullptr, &type, nullptr, &size),
             ERROR_FILE_NOT_FOUND);
}

void DeletedKeysSaySo(Asked& asked) {
  const OwnKey key;
  asked.Same("RegDeleteKeyW", RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey), ERROR_SUCCESS);
  DWORD size = 0;
  asked.Same("a read through the old handle", RegQueryValueExW(key.Get(), L"Text", nullptr, nullptr, nullptr, &size),
             ERROR_KEY_DELETED);
}

void DeletedThingsAreTold(Asked& asked) {
  const OwnKey key;
  RegistryKey below;
  for (const wchar_t* name : {L"one", L"one\\two", L"three"}) {
    RegCreateKeyExW(key.Get(), name, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, below.Put(), nullptr);
  }
  below.Reset();
  asked.Same("RegDeleteKeyExW of one with subkeys", RegDeleteKeyExW(key.Get(), L"one", 0, 0), ERROR_ACCESS_DENIED);
  asked.Same("RegDeleteKeyExW", RegDeleteKeyExW(key.Get(), L"three", 0, 0), ERROR_SUCCESS);
  asked.Same("a second time", RegDeleteKeyExW(key.Get(), L"three", 0, 0), ERROR_FILE_NOT_FOUND);
  asked.Same("RegDeleteTreeW", RegDeleteTreeW(key.Get(), L"one"), ERROR_SUCCESS);
  asked.Same("a second time", RegDeleteTreeW(key.Get(), L"one"), ERROR_FILE_NOT_FOUND);
  asked.Same("RegDeleteKeyValueW of none", RegDeleteKeyValueW(key.Get(), nullptr, L"none"), ERROR_FILE_NOT_FOUND);
  asked.Same("RegFlushKey", RegFlushKey(key.Get()), ERROR_SUCCESS);
}

void KeysKeepTheirList(Asked& asked) {
  const OwnKey key;
  PSECURITY_DESCRIPTOR raw = nullptr;
  ConvertStringSecurityDescriptorToSecurityDescriptorW(L"D:P(A;;KA;;;SY)(A;;KA;;;BA)", SDDL_REVISION_1, &raw, nullptr);
  const LocalMemory given(raw);
  asked.Same("RegSetKeySecurity",
             RegSetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION, given.Get()),
             ERROR_SUCCESS);
  std::vector<BYTE> read(4096);
  auto size = static_cast<DWORD>(read.size());
  asked.Same("RegGetKeySecurity", RegGetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION, read.data(), &size),
             ERROR_SUCCESS);
  wchar_t* text = nullptr;
  ConvertSecurityDescriptorToStringSecurityDescriptorW(read.data(), SDDL_REVISION_1, DACL_SECURITY_INFORMATION, &text,
                                                       nullptr);
  const LocalMemory owned(text);
  asked.True("it reads so", text != nullptr && std::wstring(text).ends_with(L"(A;;KA;;;SY)(A;;KA;;;BA)"));
}

constexpr Case kCases[] = {
    {"value sizes", "a value that does not fit is told with its size", ValuesWantRoom},
    {"deleted key", "an open handle of a deleted key reads nothing and says so", DeletedKeysSaySo},
    {"deleting", "what is not there to be deleted is an error of its own", DeletedThingsAreTold},
    {"security", "a key's list is the one that it was given", KeysKeepTheirList},
};

}  // namespace

extern const Group kRegistry;
const Group kRegistry{"registry", kCases};

}  // namespace contract
