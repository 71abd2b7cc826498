#include "win32/hash.h"

#include "win32/handle.h"

#include <bcrypt.h>

#include <array>

namespace kiosk::win32 {
namespace {

struct AlgorithmTraits {
  using Value = BCRYPT_ALG_HANDLE;
  static Value Invalid() noexcept { return nullptr; }
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
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const UCHAR byte : digest) {
    text += kDigits[byte >> 4U];
    text += kDigits[byte & 0x0FU];
  }
  return text;
}

}  // namespace kiosk::win32
