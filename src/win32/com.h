#pragma once

#include "win32/handle.h"
#include "win32/winapi.h"

#include <objbase.h>
#include <oleauto.h>

#include <string>
#include <string_view>
#include <utility>

namespace kiosk::win32 {

// "0x80070005".
std::string HresultText(HRESULT result);

// The multithreaded apartment for a scope. A thread that is in it already is counted once more. When the thread cannot
// enter it, the destructor does nothing.
class ComApartment {
 public:
  ComApartment() noexcept : result_(CoInitializeEx(nullptr, COINIT_MULTITHREADED)) {}
  ComApartment(const ComApartment&) = delete;
  ComApartment& operator=(const ComApartment&) = delete;
  ~ComApartment() {
    if (SUCCEEDED(result_)) {
      CoUninitialize();
    }
  }

  [[nodiscard]] HRESULT Result() const noexcept { return result_; }

 private:
  HRESULT result_;
};

// A counted reference to a COM object.
template <typename Interface>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  // Takes a reference over; it does not count one more.
  explicit ComPtr(Interface* object) noexcept : object_(object) {}
  ComPtr(const ComPtr& other) noexcept : object_(other.object_) {
    if (object_ != nullptr) {
      object_->AddRef();
    }
  }
  ComPtr(ComPtr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  ComPtr& operator=(ComPtr other) noexcept {
    std::swap(object_, other.object_);
    return *this;
  }
  ~ComPtr() { Reset(); }

  [[nodiscard]] Interface* Get() const noexcept { return object_; }
  Interface* operator->() const noexcept { return object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  void Reset() noexcept {
    if (Interface* const old = std::exchange(object_, nullptr); old != nullptr) {
      old->Release();
    }
  }
  // For calls that hand out a reference through a pointer. What was held before is released first.
  [[nodiscard]] Interface** Put() noexcept {
    Reset();
    return &object_;
  }
  // Asks the object, which there must be, for its interface `Other`; `other` is empty afterwards when it has none.
  template <typename Other>
  HRESULT As(REFIID interfaceId, ComPtr<Other>& other) const noexcept {
    void* found = nullptr;
    const HRESULT result = object_->QueryInterface(interfaceId, &found);
    other = ComPtr<Other>(static_cast<Other*>(found));
    return result;
  }

 private:
  Interface* object_ = nullptr;
};

// An in-process object of the class, as `Interface`.
template <typename Interface>
HRESULT CreateInProcess(REFCLSID classId, REFIID interfaceId, ComPtr<Interface>& object) noexcept {
  void* created = nullptr;
  const HRESULT result = CoCreateInstance(classId, nullptr, CLSCTX_INPROC_SERVER, interfaceId, &created);
  object = ComPtr<Interface>(static_cast<Interface*>(created));
  return result;
}

struct BstrTraits : NullIsNone<BSTR> {
  static void Free(Value value) noexcept { SysFreeString(value); }
};
using Bstr = Owner<BstrTraits>;

// A copy of the text as COM wants it; empty when there is no memory.
inline Bstr MakeBstr(std::wstring_view text) noexcept {
  return Bstr(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
}

// The text of a BSTR; a null one is the empty text.
inline std::wstring_view BstrText(BSTR text) noexcept {
  return text == nullptr ? std::wstring_view() : std::wstring_view(text, SysStringLen(text));
}

}  // namespace kiosk::win32
