// Windows' management instrumentation, as far as it tells of network adapters and changes them.
#define CINTERFACE
#include "sim/clock.h"
#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/network_internal.h"

#include <oleauto.h>
#include <wbemcli.h>

#include <cwchar>
#include <map>
#include <string>
#include <utility>

namespace sim {
namespace {

constexpr wchar_t kClassName[] = L"Win32_NetworkAdapterConfiguration";

// What a method does, and the number that it answers.
LONG Run(const std::wstring& name, const std::wstring& method, std::map<std::wstring, Texts>& arguments) {
  const bool dhcp = Adapter(name).dhcp.Get() != 0;
  const Texts& addresses = arguments[L"IPAddress"];
  const Texts& masks = arguments[L"SubnetMask"];
  if (const auto answer = ReadNumber(Adapter(name).area, method)) {
    return static_cast<LONG>(*answer);
  }
  if (Adapter(name).cable.Get() == 0) {
    return 84;  // IP is not enabled on the adapter
  }
  LONG answer = 0;
  if (method == L"EnableDHCP") {
    // Its page: gateways that were set stay. They also stay where they are found after a restart.
    Adapter(name).dhcp.Set(1);
    Adapter(name).addresses.Forget();
    KeepLease(name);
  } else if (method == L"EnableStatic") {
    if (addresses.empty() || addresses.size() != masks.size()) {
      return 68;
    }
    answer = dhcp ? 0 : 81;  // its page: "cannot configure DHCP" for one that is static already, and yet it is done
    std::wstring joined;
    for (std::size_t i = 0; i < addresses.size(); ++i) {
      const int bits = __builtin_popcountl(AddressNumber(masks[i]));
      joined += (i == 0 ? L"" : L" ") + addresses[i] + L"/" + std::to_wstring(bits);
    }
    Adapter(name).addresses.Set(joined);
    Adapter(name).dhcp.Set(0);
  } else if (method == L"SetGateways") {
    // Its page: for static addresses alone, the argument is not optional, and the adapter's own address clears them.
    // What then stands in the registry no page says: here it is that address.
    const Texts& gateways = arguments[L"DefaultIPGateway"];
    if (dhcp || gateways.empty() || gateways.size() > 5) {
      return dhcp ? 64 : gateways.empty() ? 68 : 69;
    }
    Adapter(name).gateways.Set(IsOwn(name, gateways[0]) ? L"" : Joined(gateways));
    Keep(name, L"DefaultGateway", REG_MULTI_SZ, Joined(gateways));
  } else {
    Keep(name, L"NameServer", REG_SZ, Joined(arguments[L"DNSServerSearchOrder"]));
  }
  Adapter(name).changedAt.Set(std::to_wstring(ClockNow()));
  return answer;
}

// An instance, a method's signature, its arguments, or its answer.
struct Record {
  std::wstring path;
  LONG answer = 0;
  std::map<std::wstring, Texts> values = {};
};
using Instance = Object<IWbemClassObject, Record, IID_IWbemClassObject>;

HRESULT CALL Get(IWbemClassObject* self, LPCWSTR name, LONG, VARIANT* value, CIMTYPE*, LONG*) {
  const Record& record = Instance::Of(self);
  if (wcscmp(name, L"__RELPATH") == 0 && !record.path.empty()) {
    value->vt = VT_BSTR;
    value->bstrVal = SysAllocString(record.path.c_str());
    return S_OK;
  }
  if (wcscmp(name, L"ReturnValue") != 0) {
    return static_cast<HRESULT>(WBEM_E_NOT_FOUND);
  }
  value->vt = VT_I4;
  value->lVal = record.answer;
  return S_OK;
}

HRESULT CALL Put(IWbemClassObject* self, LPCWSTR name, LONG, VARIANT* value, CIMTYPE) {
  if (value->vt != (VT_ARRAY | VT_BSTR)) {
    Violation("IWbemClassObject::Put: %s is no array of texts", Narrow(name).c_str());
    return static_cast<HRESULT>(WBEM_E_TYPE_MISMATCH);
  }
  LONG last = -1;
  SafeArrayGetUBound(value->parray, 1, &last);
  Texts& texts = Instance::Of(self).values[name];
  for (LONG i = 0; i <= last; ++i) {
    BSTR text = nullptr;
    SafeArrayGetElement(value->parray, &i, &text);
    texts.emplace_back(text);
    SysFreeString(text);
  }
  return S_OK;
}

HRESULT CALL GetMethod(IWbemClassObject*, LPCWSTR name, LONG, IWbemClassObject** in, IWbemClassObject**);
HRESULT CALL SpawnInstance(IWbemClassObject*, LONG, IWbemClassObject** instance);
IWbemClassObjectVtbl instanceTable{COM_BASICS(Instance), .Get = Get, .Put = Put, .SpawnInstance = SpawnInstance,
                                   .GetMethod = GetMethod};
Instance* Make(const std::wstring& path = L"", LONG answer = 0) { return new Instance(&instanceTable, path, answer); }

HRESULT CALL GetMethod(IWbemClassObject*, LPCWSTR name, LONG, IWbemClassObject** in, IWbemClassObject**) {
  *in = wcscmp(name, L"EnableDHCP") == 0 ? nullptr : Make();
  return S_OK;
}
HRESULT CALL SpawnInstance(IWbemClassObject*, LONG, IWbemClassObject** instance) {
  *instance = Make();
  return S_OK;
}

// A call under way: it is over when it is asked for the second time. The answer is an instance or a class.
struct Asked {
  LONG answer;  // below 0: it never ends
  int times = 0;
};
using Call = Object<IWbemCallResult, Asked, IID_IWbemCallResult>;
IWbemCallResultVtbl callTable{
    COM_BASICS(Call),
    .GetResultObject = [](IWbemCallResult* self, LONG timeout, IWbemClassObject** object) CALL -> HRESULT {
      Asked& call = Call::Of(self);
      if (timeout != 0) {
        Violation("IWbemCallResult::GetResultObject: a wait of %ld ms, which does not hear the stop", timeout);
      }
      if (call.times++ == 0 || call.answer < 0) {
        return WBEM_S_TIMEDOUT;
      }
      *object = Make(L"", call.answer);
      return S_OK;
    }};

HRESULT Begin(const char* function, LONG flags, IWbemCallResult** result, LONG answer) {
  if (flags != WBEM_FLAG_RETURN_IMMEDIATELY || result == nullptr || *result != nullptr) {
    Violation("IWbemServices::%s: flags 0x%lx, or no place for the call", function, flags);
    return static_cast<HRESULT>(WBEM_E_INVALID_PARAMETER);
  }
  *result = new Call(&callTable, answer);
  return S_OK;
}

using Found = Object<IEnumWbemClassObject, std::wstring, IID_IEnumWbemClassObject>;  // the path of the one found
HRESULT CALL Next(IEnumWbemClassObject* self, LONG, ULONG, IWbemClassObject** object, ULONG* count) {
  const std::wstring path = std::exchange(Found::Of(self), L"");
  *count = path.empty() ? 0 : 1;
  *object = path.empty() ? nullptr : Make(path);
  return path.empty() ? HRESULT{WBEM_S_FALSE} : S_OK;
}
IEnumWbemClassObjectVtbl foundTable{COM_BASICS(Found), .Next = Next};

using Services = Object<IWbemServices, Stateless, IID_IWbemServices>;

HRESULT CALL GetClass(IWbemServices*, const BSTR name, LONG flags, IWbemContext*, IWbemClassObject**,
                      IWbemCallResult** result) {
  if (wcscmp(name, kClassName) != 0) {
    return static_cast<HRESULT>(WBEM_E_INVALID_CLASS);
  }
  return Begin("GetObject", flags, result, Adapter(kFactoryAdapter).hangs.Get() == L"GetObject" ? -1 : 0);
}

HRESULT CALL ExecQuery(IWbemServices*, const BSTR, const BSTR query, LONG, IWbemContext*,
                       IEnumWbemClassObject** result) {
  std::wstring path;
  for (const std::wstring& name : Adapters()) {
    if (query == std::wstring(L"SELECT * FROM ") + kClassName + L" WHERE SettingID = \"" + name + L"\"") {
      path = std::wstring(kClassName) + L".Name=" + name;
    }
  }
  *result = new Found(&foundTable, path);
  return S_OK;
}

HRESULT CALL ExecMethod(IWbemServices*, const BSTR path, const BSTR method, LONG flags, IWbemContext*,
                        IWbemClassObject* in, IWbemClassObject**, IWbemCallResult** result) {
  const std::wstring name = std::wstring(path).substr(std::wstring(path).find(L'=') + 1);
  std::map<std::wstring, Texts> arguments = in != nullptr ? Instance::Of(in).values : std::map<std::wstring, Texts>();
  const LONG answer = Adapter(name).hangs.Get() == method
                          ? -1
                          : Change<LONG>("ExecMethod", method, [&] { return Run(name, method, arguments); });
  return Begin("ExecMethod", flags, result, answer);
}
IWbemServicesVtbl servicesTable{COM_BASICS(Services), .GetObject = GetClass, .ExecQuery = ExecQuery,
                                .ExecMethod = ExecMethod};

using Locator = Object<IWbemLocator, Stateless, IID_IWbemLocator>;
IWbemLocatorVtbl locatorTable{
    COM_BASICS(Locator),
    .ConnectServer = [](IWbemLocator*, const BSTR resource, const BSTR, const BSTR, const BSTR, LONG flags, const BSTR,
                        IWbemContext*, IWbemServices** services) CALL -> HRESULT {
      if (wcscmp(resource, L"ROOT\\CIMV2") != 0 || flags != WBEM_FLAG_CONNECT_USE_MAX_WAIT) {
        Violation("IWbemLocator::ConnectServer: %s, flags 0x%lx", Narrow(resource).c_str(), flags);
      }
      *services = new Services(&servicesTable);
      return S_OK;
    }};

const bool registered = RegisterComClass(
    {&CLSID_WbemLocator, [](REFIID id, void** object) { return HandOut(new Locator(&locatorTable), id, object); }});

}  // namespace
}  // namespace sim

using namespace sim;

SIM(HRESULT, CoSetProxyBlanket, IUnknown* proxy, DWORD authentication, DWORD, OLECHAR*, DWORD, DWORD impersonation,
    RPC_AUTH_IDENTITY_HANDLE, DWORD) {
  if (proxy == nullptr || authentication != RPC_C_AUTHN_WINNT || impersonation != RPC_C_IMP_LEVEL_IMPERSONATE) {
    Violation("CoSetProxyBlanket: authentication %lu, impersonation %lu", authentication, impersonation);
  }
  return S_OK;
}
