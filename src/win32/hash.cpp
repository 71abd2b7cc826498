#include "win32/hash.h"

#include "text/text.h"
#include "win32/handle.h"

#include <bcrypt.h>

#include <array>

namespace kiosk::win32 {
namespace {

struct AlgorithmTraits : NullIsNone<BCRYPT_ALG_HANDLE> {
  static void Free(Value value) noexcept { BCryptCloseAlgorithmProvider(value, 0); }
};

}  // namespace

std::string Sha256Hex(std::string_view bytes) {
  Owner<AlgorithmTraits> sha256;
  std::array<UCHAR, 32> digest{};
  auto* data = reinterpret_cast<PUCHAR>(const_cast<char*>(bytes.data()));
  if (BCryptOpenAlgorithmProvider(sha256.Put(), BCRYPT_SHA256_ALGORITHM, nullptr, 0) < 0 ||
      BCryptHash(sha256.Get(), nullptr, 0, data, static_cast<ULONG>(bytes.size()), digest.data(), digest.size()) < 0) {
    return {};
  }
  return text::Hex(digest);
}

}  // namespace kiosk::win32
