// Random numbers, and protection of data for this machine.
#include "tests/contract/contract.h"
#include "win32/winapi.h"

#include <bcrypt.h>
#include <dpapi.h>
#include <wincrypt.h>

#include <cstring>

namespace contract {
namespace {

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
             BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(&first), sizeof(first), BCRYPT_USE_SYSTEM_PREFERRED_RNG),
             0);
  asked.Same(
      "second",
      BCryptGenRandom(nullptr, reinterpret_cast<PUCHAR>(&second), sizeof(second), BCRYPT_USE_SYSTEM_PREFERRED_RNG), 0);
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

constexpr Case kCases[] = {
    {"random", "the preferred generator gives other bytes each time", RandomBytesDiffer},
    {"protect", "what is protected for the machine comes back, and is not readable as it stands",
     ProtectedDataComesBack},
    {"damaged", "a damaged blob is refused", DamagedDataIsRefused},
};

}  // namespace

extern const Group kCrypto;
const Group kCrypto{"crypto", kCases};

}  // namespace contract
