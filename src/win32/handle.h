// Owner types for everything that Windows hands out and wants back.
//
// A kind of resource is one traits struct: the raw type, its invalid value and the call that gives it back. The
// owner moves, never copies, and its destructor keeps the thread's last error, so that `return Failed(GetLastError())`
// reads the same with or without an owner going out of scope before it.
#pragma once

#include "win32/winapi.h"

#include <utility>

namespace kiosk::win32 {

template <typename Traits>
class Owner {
 public:
  using Value = typename Traits::Value;

  Owner() noexcept = default;
  explicit Owner(Value value) noexcept : value_(value) {}
  Owner(const Owner&) = delete;
  Owner& operator=(const Owner&) = delete;
  Owner(Owner&& other) noexcept : value_(other.Release()) {}
  Owner& operator=(Owner&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }
  ~Owner() { Reset(); }

  [[nodiscard]] Value Get() const noexcept { return value_; }
  explicit operator bool() const noexcept { return value_ != Traits::Invalid(); }

  // Gives the resource up without releasing it.
  [[nodiscard]] Value Release() noexcept { return std::exchange(value_, Traits::Invalid()); }

  void Reset(Value value = Traits::Invalid()) noexcept {
    const Value old = std::exchange(value_, value);
    if (old != Traits::Invalid()) {
      const DWORD lastError = GetLastError();
      Traits::Free(old);
      SetLastError(lastError);
    }
  }

  // For calls that fill in the resource through a pointer. What was owned before is released first.
  [[nodiscard]] Value* Put() noexcept {
    Reset();
    return &value_;
  }

 private:
  Value value_ = Traits::Invalid();
};

// The start of the traits of a kind whose calls fail with null.
template <typename Raw>
struct NullIsNone {
  using Value = Raw;
  static Value Invalid() noexcept { return nullptr; }
};

struct KernelHandleTraits : NullIsNone<HANDLE> {
  static void Free(Value value) noexcept { CloseHandle(value); }
};
// Files and pipes: their calls fail with INVALID_HANDLE_VALUE where all others fail with null.
struct FileHandleTraits : KernelHandleTraits {
  static Value Invalid() noexcept { return INVALID_HANDLE_VALUE; }
};
struct FindHandleTraits : FileHandleTraits {
  static void Free(Value value) noexcept { FindClose(value); }
};
struct RegistryKeyTraits : NullIsNone<HKEY> {
  static void Free(Value value) noexcept { RegCloseKey(value); }
};
struct LocalMemoryTraits : NullIsNone<void*> {
  static void Free(Value value) noexcept { LocalFree(value); }
};
struct ServiceHandleTraits : NullIsNone<SC_HANDLE> {
  static void Free(Value value) noexcept { CloseServiceHandle(value); }
};

using KernelHandle = Owner<KernelHandleTraits>;
using FileHandle = Owner<FileHandleTraits>;
using FindHandle = Owner<FindHandleTraits>;
using RegistryKey = Owner<RegistryKeyTraits>;
using LocalMemory = Owner<LocalMemoryTraits>;
using ServiceHandle = Owner<ServiceHandleTraits>;

}  // namespace kiosk::win32
