#include "account/password.h"

#include "win32/random.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace kiosk::account {
namespace {

// Without I, O, l, 0 and 1, which people confuse.
constexpr std::wstring_view kAlphabet = L"ABCDEFGHJKLMNPQRSTUVWXYZabcdefghijkmnopqrstuvwxyz23456789!#%+-=?@^_";
static_assert(kAlphabet.size() == 67);
// The largest multiple of the alphabet's size that a byte can hold: a byte from here on would favour the first
// characters.
constexpr std::uint8_t kByteLimit = 201;
static_assert(kByteLimit % kAlphabet.size() == 0);
constexpr std::size_t kRandomBytes = 128;
constexpr int kAttempts = 16;

// Fills `password`; false when the generator refuses.
bool Draw(Password& password) {
  std::array<std::uint8_t, kRandomBytes> bytes{};
  bool drawn = true;
  while (drawn && password.Size() < Password::kLength) {
    drawn = win32::FillRandom(bytes.data(), bytes.size());
    for (std::size_t i = 0; drawn && i < bytes.size() && password.Size() < Password::kLength; ++i) {
      if (bytes[i] < kByteLimit) {
        password.Append(kAlphabet[bytes[i] % kAlphabet.size()]);
      }
    }
  }
  SecureZeroMemory(bytes.data(), bytes.size());
  return drawn;
}

bool HasAllKinds(const Password& password) {
  bool upper = false;
  bool lower = false;
  bool digit = false;
  bool other = false;
  for (const wchar_t character : std::wstring_view(password.Get(), password.Size())) {
    if (character >= L'A' && character <= L'Z') {
      upper = true;
    } else if (character >= L'a' && character <= L'z') {
      lower = true;
    } else if (character >= L'0' && character <= L'9') {
      digit = true;
    } else {
      other = true;
    }
  }
  return upper && lower && digit && other;
}

}  // namespace

Password GenerateKioskPassword() {
  Password password;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    if (!Draw(password)) {
      password.Wipe();
      return password;
    }
    if (HasAllKinds(password)) {
      return password;
    }
    password.Wipe();
  }
  return password;
}

}  // namespace kiosk::account
