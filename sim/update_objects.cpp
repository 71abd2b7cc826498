// Written in C style, see sim/com.h.
#define CINTERFACE
#include <initguid.h>

#include "sim/update_objects.h"

#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <oleauto.h>

#include <cstddef>
#include <cwchar>

namespace sim {
namespace {

DEFINE_GUID(kIidUpdate2, 0x144fe9b0, 0xd23d, 0x4a8b, 0x86, 0x34, 0xfb, 0x44, 0x57, 0x53, 0x3b, 0x7a);
DEFINE_GUID(kIidUpdate3, 0x112eda6b, 0x95b3, 0x476f, 0x9d, 0x90, 0xae, 0xe8, 0x2c, 0x6b, 0x81, 0x81);

BSTR Text(const std::wstring& text) { return SysAllocStringLen(text.data(), static_cast<UINT>(text.size())); }

using Identity = Object<IUpdateIdentity, std::wstring>;
IUpdateIdentityVtbl identityTable = {COM_BASICS(Identity), .get_UpdateID = COM_GET(Text(Identity::Of(self)))};

using Behaviour = Object<IInstallationBehavior, std::wstring>;  // the update's area
IInstallationBehaviorVtbl behaviourTable = {
    COM_BASICS(Behaviour), .get_CanRequestUserInput = COM_GET(Flag(NumberOf(Behaviour::Of(self), L"AsksPerson"))),
    .get_Impact = COM_GET(static_cast<InstallationImpact>(NumberOf(Behaviour::Of(self), L"Impact"))),
    .get_RebootBehavior = COM_GET(static_cast<InstallationRebootBehavior>(NumberOf(Behaviour::Of(self), L"Reboot")))};

using Update = Object<IUpdate, std::wstring, IID_IUpdate, kIidUpdate2, kIidUpdate3>;  // its area

HRESULT CALL SizeOf(IUpdate* self, DECIMAL* out) {
  const std::wstring size = ReadText(Update::Of(self), L"Size").value_or(L"none");
  *out = {};
  out->sign = size[0] == L'-' ? DECIMAL_NEG : 0;
  out->Lo64 = std::wcstoull(size.c_str() + (size[0] == L'-' ? 1 : 0), nullptr, 10);
  return size == L"none" ? E_FAIL : S_OK;
}

HRESULT CALL AcceptTerms(IUpdate* self) {
  const std::wstring& area = Update::Of(self);
  const DWORD error = Change<DWORD>("AcceptEula", area, [&]() -> DWORD {
    if (NumberOf(area, L"TermsFailure") == 0) {
      WriteNumber(area, L"TermsAccepted", 1);
    }
    return ERROR_SUCCESS;
  });
  return error != 0 ? HRESULT_FROM_WIN32(error) : static_cast<HRESULT>(NumberOf(area, L"TermsFailure"));
}

// The second and third version of the interface follow the first one's slots.
struct UpdateTable {
  IUpdateVtbl first;
  void* second[4];
  HRESULT(CALL* get_BrowseOnly)(IUpdate* self, VARIANT_BOOL* out);
};
static_assert(offsetof(UpdateTable, get_BrowseOnly) == 56 * sizeof(void*));
UpdateTable updateTable = {
    .first = {COM_BASICS(Update), .get_Title = COM_GET(Text(ReadText(Update::Of(self), L"Title").value_or(L""))),
              .get_EulaAccepted = COM_GET(Flag(NumberOf(Update::Of(self), L"TermsAccepted"))),
              .get_Identity = COM_GET(new Identity(&identityTable, ReadText(Update::Of(self), L"Id").value_or(L""))),
              // Its page: "can return a null pointer as the output, even when the return value is S_OK".
              .get_InstallationBehavior = COM_GET(NumberOf(Update::Of(self), L"NoBehaviour") != 0
                                                      ? nullptr
                                                      : new Behaviour(&behaviourTable, Update::Of(self))),
              .get_MaxDownloadSize = SizeOf, .AcceptEula = AcceptTerms},
    .second = {},
    .get_BrowseOnly = COM_GET(Flag(NumberOf(Update::Of(self), L"BrowseOnly")))};

using Collection = Object<IUpdateCollection, Areas, IID_IUpdateCollection>;
IUpdateCollectionVtbl collectionTable = {
    COM_BASICS(Collection),
    .get_Item = [](IUpdateCollection* self, LONG index, IUpdate** out) CALL -> HRESULT {
      if (index < 0 || static_cast<std::size_t>(index) >= Collection::Of(self).size()) {
        return static_cast<HRESULT>(0x80240007);  // no such index
      }
      *out = new Update(&updateTable.first, Collection::Of(self)[static_cast<std::size_t>(index)]);
      return S_OK;
    },
    .get_Count = COM_GET(static_cast<LONG>(Collection::Of(self).size())),
    .Add = [](IUpdateCollection* self, IUpdate* update, LONG* out) CALL -> HRESULT {
      *out = static_cast<LONG>(Collection::Of(self).size());
      Collection::Of(self).push_back(Update::Of(update));
      return S_OK;
    },
    .RemoveAt = [](IUpdateCollection* self, LONG index) CALL -> HRESULT {
      Areas& areas = Collection::Of(self);
      if (index < 0 || static_cast<std::size_t>(index) >= areas.size()) {
        return static_cast<HRESULT>(0x80240007);
      }
      areas.erase(areas.begin() + index);
      return S_OK;
    }};

}  // namespace

IUpdateCollection* NewCollection(const Areas& updates) { return new Collection(&collectionTable, updates); }
HRESULT CreateCollection(REFIID id, void** out) { return HandOut(new Collection(&collectionTable), id, out); }
const Areas& AreasOf(IUpdateCollection* collection) { return Collection::Of(collection); }

}  // namespace sim
