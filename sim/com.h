// COM for the simulated machine: classes that sim/ creates itself. Any other class is Windows' own.
//
// Objects are written in C style: the file defines CINTERFACE before its first include, and an interface's table is
// filled by designated initialisers with the methods that the product calls. Any other method is a null slot and
// crashes loudly.
#pragma once

#include "sim/seam.h"

#include <objbase.h>

#include <string>
#include <utility>

// Slots that are left out are null on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace sim {

struct ComClass {
  const CLSID* id;
  // As IClassFactory::CreateInstance of one that has no outer object.
  HRESULT (*create)(REFIID interfaceId, void** object);
};

// For static objects: const bool registered = RegisterComClass({&CLSID_X, CreateX}); the file must also define
// something that others use, or the linker leaves it out. Always true.
bool RegisterComClass(const ComClass& comClass);

// Simulated objects that were created and not released to the end, in this process.
long LiveComObjects();
void CountComObject(long difference);

// A simulated object: counts its references, of which its creator owns the first, tells of the interfaces `Ids`, and
// keeps a state.
template <typename Interface, typename State, const IID&... Ids>
struct Object : Interface {
  template <typename... Parts>
  explicit Object(decltype(Interface::lpVtbl) table, Parts... parts) : state{std::move(parts)...} {
    this->lpVtbl = table;
    CountComObject(1);
  }
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;
  ~Object() { CountComObject(-1); }

  static State& Of(Interface* self) { return static_cast<Object*>(self)->state; }
  static HRESULT STDMETHODCALLTYPE Query(Interface* self, REFIID id, void** object) {
    const bool known = IsEqualIID(id, IID_IUnknown) || (IsEqualIID(id, Ids) || ...);
    *object = known ? self : nullptr;
    return known ? (AddReference(self), S_OK) : E_NOINTERFACE;
  }
  static ULONG STDMETHODCALLTYPE AddReference(Interface* self) {
    return static_cast<ULONG>(InterlockedIncrement(&static_cast<Object*>(self)->references));
  }
  static ULONG STDMETHODCALLTYPE Drop(Interface* self) {
    const LONG left = InterlockedDecrement(&static_cast<Object*>(self)->references);
    if (left == 0) {
      delete static_cast<Object*>(self);
    }
    return static_cast<ULONG>(left);
  }

  State state;
  LONG references = 1;
};
struct Stateless {};

#define CALL STDMETHODCALLTYPE
// For an interface's table: the methods that every object of the type has, and one that gives a value of `self`.
#define COM_BASICS(type) .QueryInterface = type::Query, .AddRef = type::AddReference, .Release = type::Drop
#define COM_GET(value)                                     \
  [](auto* self, auto* out) STDMETHODCALLTYPE -> HRESULT { \
    static_cast<void>(self);                               \
    *out = value;                                          \
    return S_OK;                                           \
  }

constexpr VARIANT_BOOL Flag(DWORD value) { return value != 0 ? VARIANT_TRUE : VARIANT_FALSE; }
inline std::wstring TextOf(const wchar_t* text) { return text != nullptr ? text : L""; }

// Hands a new object out and lets go of it, as a factory does.
template <typename Created>
HRESULT HandOut(Created* created, REFIID id, void** object) {
  const HRESULT result = Created::Query(created, id, object);
  Created::Drop(created);
  return result;
}

}  // namespace sim
