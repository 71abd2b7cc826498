// Protected data: Wine's, with a sum of its bytes at the end, since Wine gives back what somebody has changed in it.
#include "sim/faults.h"
#include "sim/machine.h"

#include <dpapi.h>

#include <cstdint>
#include <cstring>

namespace {

// FNV-1a, 64 bits.
std::uint64_t SumOf(const BYTE* bytes, DWORD size) {
  std::uint64_t sum = 0xCBF29CE484222325;
  for (DWORD i = 0; i < size; ++i) {
    sum = (sum ^ bytes[i]) * 0x100000001B3;
  }
  return sum;
}

BOOL AppendSum(const DATA_BLOB& bytes, DATA_BLOB* result) {
  const std::uint64_t sum = SumOf(bytes.pbData, bytes.cbData);
  result->cbData = bytes.cbData + DWORD{sizeof(sum)};
  result->pbData = static_cast<BYTE*>(LocalAlloc(LMEM_FIXED, result->cbData));
  std::memcpy(result->pbData, bytes.pbData, bytes.cbData);
  std::memcpy(result->pbData + bytes.cbData, &sum, sizeof(sum));
  LocalFree(bytes.pbData);
  return TRUE;
}

}  // namespace

using namespace sim;

SIM(WINBOOL, CryptProtectData, DATA_BLOB* in, LPCWSTR text, DATA_BLOB* entropy, PVOID reserved,
    CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags, DATA_BLOB* out) {
  dataProtectionFlags.Set(flags);
  return Change<BOOL>(__func__ + 4, text != nullptr ? text : L"", [&] {
    DATA_BLOB hidden{};
    return ::CryptProtectData(in, text, entropy, reserved, prompt, flags, &hidden) && AppendSum(hidden, out);
  });
}

SIM(WINBOOL, CryptUnprotectData, DATA_BLOB* in, LPWSTR* text, DATA_BLOB* entropy, PVOID reserved,
    CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags, DATA_BLOB* out) {
  std::uint64_t sum = 0;
  const DWORD size = in->cbData > sizeof(sum) ? in->cbData - DWORD{sizeof(sum)} : 0;
  DATA_BLOB hidden{size, in->pbData};
  std::memcpy(&sum, in->pbData + size, size != 0 ? sizeof(sum) : 0);
  if (size == 0 || sum != SumOf(hidden.pbData, size)) {
    SetLastError(ERROR_INVALID_DATA);
    return FALSE;
  }
  return ::CryptUnprotectData(&hidden, text, entropy, reserved, prompt, flags, out);
}
