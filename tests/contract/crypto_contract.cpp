// Random numbers, protection of data for this machine, registry values.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <bcrypt.h>
#include <dpapi.h>
#include <wincrypt.h>

#include <cstring>

namespace contract {
namespace {

using kiosk::win32::LocalMemory;
using kiosk::win32::RegistryKey;

constexpr wchar_t kKey[] = L"SOFTWARE\\NorvaneProof";

struct Blob {
  DATA_BLOB blob{};
  Blob() = default;
  Blob(const Blob&) = delete;
  Blob& operator=(const Blob&) = delete;
  ~Blob() { LocalFree(blob.pbData); }
};

bool Protect(const char* text, DWORD flags, DATA_BLOB& result) {
  DATA_BLOB data{static_cast<DWORD>(std::strlen(text)), reinterpret_cast<BYTE*>(const_cast<char*>(text))};
  return CryptProtectData(&data, L"NorvaneProof", nullptr, nullptr, nullptr, flags | CRYPTPROTECT_UI_FORBIDDEN,
                          &result) != 0;
}

void RandomBytesDiffer(Asked& asked) {
  std::uint64_t first = 0;
  std::uint64_t second = 0;
  asked.Same("first",
             static_cast<std::uint32_t>(BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(&first), sizeof(first),
                                                        BCRYPT_USE_SYSTEM_PREFERRED_RNG)),
             0);
  asked.Same("second",
             static_cast<std::uint32_t>(BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(&second), sizeof(second),
                                                        BCRYPT_USE_SYSTEM_PREFERRED_RNG)),
             0);
  asked.True("they differ", first != second);
}

void ProtectedDataComesBack(Asked& asked) {
  Blob hidden;
  asked.True("CryptProtectData", Protect("a device token", CRYPTPROTECT_LOCAL_MACHINE, hidden.blob));
  asked.True(
      "it is not readable as it stands",
      std::string(reinterpret_cast<char*>(hidden.blob.pbData), hidden.blob.cbData).find("token") == std::string::npos);
  Blob open;
  asked.True("CryptUnprotectData", CryptUnprotectData(&hidden.blob, nullptr, nullptr, nullptr, nullptr,
                                                      CRYPTPROTECT_UI_FORBIDDEN, &open.blob) != 0);
  asked.True("the same bytes", open.blob.cbData == 14 && std::memcmp(open.blob.pbData, "a device token", 14) == 0);
}

void DamagedDataIsRefused(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine takes a damaged blob");
  Blob hidden;
  asked.True("CryptProtectData", Protect("a device token", CRYPTPROTECT_LOCAL_MACHINE, hidden.blob));
  hidden.blob.pbData[hidden.blob.cbData / 2] ^= 1;
  Blob open;
  asked.True("CryptUnprotectData fails", CryptUnprotectData(&hidden.blob, nullptr, nullptr, nullptr, nullptr,
                                                            CRYPTPROTECT_UI_FORBIDDEN, &open.blob) == 0);
}

void ValuesWantRoom(Asked& asked) {
  RegistryKey key;
  Asked::Needs(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr,
                               key.Put(), nullptr) == ERROR_SUCCESS,
               "a key below HKLM");
  const AtEnd remove([] { RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey); });
  asked.Same("RegSetValueExW",
             static_cast<std::uint64_t>(
                 RegSetValueExW(key.Get(), L"Text", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"four"), 10)),
             ERROR_SUCCESS);
  BYTE small[4];
  DWORD size = sizeof(small);
  DWORD type = 0;
  asked.Same("4 bytes", static_cast<std::uint64_t>(RegQueryValueExW(key.Get(), L"Text", nullptr, &type, small, &size)),
             ERROR_MORE_DATA);
  asked.Same("the size that it tells", size, 10);
  size = 0;
  asked.Same("no buffer",
             static_cast<std::uint64_t>(RegQueryValueExW(key.Get(), L"Text", nullptr, &type, nullptr, &size)),
             ERROR_SUCCESS);
  asked.Same("its type", type, REG_SZ);
  asked.Same("a value that is not there",
             static_cast<std::uint64_t>(RegQueryValueExW(key.Get(), L"None", nullptr, &type, nullptr, &size)),
             ERROR_FILE_NOT_FOUND);
}

void DeletedKeysSaySo(Asked& asked) {
  RegistryKey key;
  Asked::Needs(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kKey, 0, nullptr, REG_OPTION_VOLATILE, KEY_ALL_ACCESS, nullptr,
                               key.Put(), nullptr) == ERROR_SUCCESS,
               "a key below HKLM");
  asked.Same("RegDeleteKeyW", static_cast<std::uint64_t>(RegDeleteKeyW(HKEY_LOCAL_MACHINE, kKey)), ERROR_SUCCESS);
  DWORD size = 0;
  asked.Same("a read through the old handle",
             static_cast<std::uint64_t>(RegQueryValueExW(key.Get(), L"Text", nullptr, nullptr, nullptr, &size)),
             ERROR_KEY_DELETED);
}

constexpr Case kCases[] = {
    {"random", "the preferred generator gives other bytes each time", RandomBytesDiffer},
    {"protect", "what is protected for the machine comes back, and is not readable as it stands",
     ProtectedDataComesBack},
    {"damaged", "a damaged blob is refused", DamagedDataIsRefused},
    {"value sizes", "a value that does not fit is told with its size", ValuesWantRoom},
    {"deleted key", "an open handle of a deleted key reads nothing and says so", DeletedKeysSaySo},
};

}  // namespace

extern const Group kCrypto;
const Group kCrypto{"crypto", kCases};

}  // namespace contract
