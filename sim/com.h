// COM for the simulated machine: classes that sim/ creates itself. Any other class is Windows' own.
//
// Objects are written in C style: the file defines CINTERFACE before its first include, and an interface's table is filled
// by designated initialisers with the methods that the product calls. Any other method is a null slot and crashes loudly.
#pragma once

#include "sim/seam.h"

#include <objbase.h>

#include <utility>

// Slots that are left out are null on purpose.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace sim {

struct ComClass {
  const CLSID* id;
  // As IClassFactory::CreateInstance of one that has no outer object.
  HRESULT (*create)(REFIID interfaceId, void** object);
};

// For static objects: const bool registered = RegisterComClass({&CLSID_X, CreateX}); the file must also define something
// that others use, or the linker leaves it out. Always true.
bool RegisterComClass(const ComClass& comClass);

// Simulated objects that were created and not released to the end, in this process.
long LiveComObjects();
void CountComObject(long difference);

// The counting and asking part of an object of type `Derived` (which tells by `static bool Has(REFIID)` what it is), with
// one reference that the creator owns.
template <typename Derived, typename Interface>
struct ComObject : Interface {
  explicit ComObject(decltype(Interface::lpVtbl) table) {
    this->lpVtbl = table;
    CountComObject(1);
  }
  ComObject(const ComObject&) = delete;
  ComObject& operator=(const ComObject&) = delete;
  ~ComObject() { CountComObject(-1); }

  static HRESULT STDMETHODCALLTYPE Query(Interface* self, REFIID id, void** object) {
    *object = nullptr;
    if (!IsEqualIID(id, IID_IUnknown) && !Derived::Has(id)) {
      return E_NOINTERFACE;
    }
    AddReference(self);
    *object = self;
    return S_OK;
  }
  static ULONG STDMETHODCALLTYPE AddReference(Interface* self) {
    return static_cast<ULONG>(InterlockedIncrement(&static_cast<Derived*>(self)->references));
  }
  static ULONG STDMETHODCALLTYPE Drop(Interface* self) {
    const LONG left = InterlockedDecrement(&static_cast<Derived*>(self)->references);
    if (left == 0) {
      delete static_cast<Derived*>(self);
    }
    return static_cast<ULONG>(left);
  }

  LONG references = 1;
};

// Hands a new object out and lets go of it, as a factory does.
template <typename Derived>
HRESULT HandOut(Derived* created, REFIID id, void** object) {
  const HRESULT result = Derived::Query(created, id, object);
  Derived::Drop(created);
  return result;
}

}  // namespace sim
