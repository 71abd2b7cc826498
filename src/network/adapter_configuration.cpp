#include "network/adapter_configuration.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

namespace kiosk::network {
namespace {

using win32::ComPtr;
using win32::MakeBstr;

constexpr wchar_t kClass[] = L"Win32_NetworkAdapterConfiguration";
constexpr std::uint64_t kMethodWait = 60'000;  // a lease may have to be asked for
constexpr std::uint64_t kQueryWait = 10'000;
constexpr DWORD kPoll = 50;
constexpr HRESULT kNothingFound = static_cast<HRESULT>(WBEM_E_NOT_FOUND);
constexpr HRESULT kNoAnswer = static_cast<HRESULT>(WBEM_E_FAILED);
constexpr LONG kDone = 0;
constexpr LONG kDoneAfterRestart = 1;
constexpr LONG kNoDhcpToSwitchOff = 81;

class Variant {
 public:
  Variant() noexcept { VariantInit(&value_); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
  ~Variant() { VariantClear(&value_); }
  VARIANT* Get() noexcept { return &value_; }
  const VARIANT* operator->() const noexcept { return &value_; }

  bool SetTexts(const std::vector<std::wstring>& texts) noexcept {
    SAFEARRAY* const array = SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(texts.size()));
    if (array == nullptr) {
      return false;
    }
    value_.vt = VT_ARRAY | VT_BSTR;
    value_.parray = array;
    for (LONG i = 0; i < static_cast<LONG>(texts.size()); ++i) {
      const win32::Bstr text = MakeBstr(texts[static_cast<std::size_t>(i)]);
      if (!text || FAILED(SafeArrayPutElement(array, &i, text.Get()))) {
        return false;
      }
    }
    return true;
  }

 private:
  VARIANT value_;
};

// Lets management instrumentation work with the rights of this service: what it calls to read and change an adapter
// refuses a caller that it may not impersonate. One proxy does not pass its security on to the next.
HRESULT LetImpersonate(IUnknown* proxy) {
  return CoSetProxyBlanket(proxy, RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                           RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
}

// Asks `step` until it has an answer, the time is over or the service stops. No wait in here is deaf to the stop.
template <typename Step>
HRESULT Poll(std::uint64_t milliseconds, Step step) {
  const win32::Deadline deadline(milliseconds);
  while (true) {
    const HRESULT result = step();
    if (result != WBEM_S_TIMEDOUT) {
      return result;
    }
    if (deadline.Passed()) {
      return HRESULT_FROM_WIN32(ERROR_TIMEOUT);
    }
    if (win32::WaitOrStop(nullptr, kPoll) == win32::WaitResult::kStop) {
      return HRESULT_FROM_WIN32(ERROR_CANCELLED);
    }
  }
}

// Waits for the end of a call, if it has begun, and its object.
HRESULT Finish(HRESULT begun, const ComPtr<IWbemCallResult>& call, std::uint64_t milliseconds,
               ComPtr<IWbemClassObject>& object) {
  if (FAILED(begun) || !call) {
    return FAILED(begun) ? begun : kNoAnswer;
  }
  LetImpersonate(call.Get());
  const HRESULT result = Poll(milliseconds, [&] { return call->GetResultObject(0, object.Put()); });
  return SUCCEEDED(result) && !object ? kNoAnswer : result;
}

std::vector<std::wstring> Texts(const std::vector<Address>& addresses) {
  std::vector<std::wstring> texts;
  texts.reserve(addresses.size());
  for (const Address address : addresses) {
    texts.push_back(win32::ToWide(AddressText(address)));
  }
  return texts;
}

}  // namespace

bool AdapterConfiguration::Open() {
  const HRESULT result = Find();
  if (FAILED(result) && tell_) {
    log::Log(log::kError, log::kKiosk, "net.set: cannot reach the configuration of %s (%s)",
             win32::ToNarrow(adapter_).c_str(), win32::HresultText(result).c_str());
  }
  return SUCCEEDED(result);
}

HRESULT AdapterConfiguration::Find() {
  ComPtr<IWbemLocator> locator;
  HRESULT result = win32::CreateInProcess(CLSID_WbemLocator, IID_IWbemLocator, locator);
  if (SUCCEEDED(result)) {
    result = locator->ConnectServer(MakeBstr(L"ROOT\\CIMV2").Get(), nullptr, nullptr, nullptr,
                                    WBEM_FLAG_CONNECT_USE_MAX_WAIT, nullptr, nullptr, services_.Put());
  }
  if (SUCCEEDED(result)) {
    result = LetImpersonate(services_.Get());
  }
  if (SUCCEEDED(result)) {
    ComPtr<IWbemCallResult> call;
    result = services_->GetObject(MakeBstr(kClass).Get(), WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, nullptr, call.Put());
    result = Finish(result, call, kQueryWait, class_);
  }
  ComPtr<IEnumWbemClassObject> found;
  if (SUCCEEDED(result)) {
    const std::wstring query = std::wstring(L"SELECT * FROM ") + kClass + L" WHERE SettingID = \"" + adapter_ + L"\"";
    result = services_->ExecQuery(MakeBstr(L"WQL").Get(), MakeBstr(query).Get(),
                                  WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, found.Put());
  }
  if (FAILED(result)) {
    return result;
  }
  LetImpersonate(found.Get());
  ComPtr<IWbemClassObject> instance;
  result = Poll(kQueryWait, [&] {
    ULONG count = 0;
    return found->Next(0, 1, instance.Put(), &count);
  });
  Variant path;
  if (SUCCEEDED(result)) {
    result = instance ? instance->Get(L"__RELPATH", 0, path.Get(), nullptr, nullptr) : kNothingFound;
  }
  if (SUCCEEDED(result)) {
    path_ = MakeBstr(path->vt == VT_BSTR ? win32::BstrText(path->bstrVal) : L"");
  }
  return result;
}

bool AdapterConfiguration::Apply(const Settings& now, const Settings& wanted, bool insist) {
  bool done = true;
  const auto step = [&](const wchar_t* method, const std::vector<Argument>& arguments) {
    done = (done || insist) && Call(method, arguments) && done;
  };
  // Gateways can be set only beside fixed addresses, and stay when DHCP is switched on. Setting the adapter's own
  // address as the gateway clears them.
  const auto setGateways = [&](const Settings& addresses) {
    if (!wanted.gateways.empty()) {
      step(L"SetGateways", {{L"DefaultIPGateway", Texts(wanted.gateways)}});
    } else if (!now.gateways.empty() && !addresses.addresses.empty()) {
      step(L"SetGateways", {{L"DefaultIPGateway", Texts({addresses.addresses.front().address})}});
    }
  };
  if (wanted.dhcp) {
    if (!now.dhcp) {
      setGateways(now);
    }
    step(L"EnableDHCP", {});
  } else {
    std::vector<std::wstring> addresses;
    std::vector<std::wstring> masks;
    for (const OwnAddress& each : wanted.addresses) {
      addresses.push_back(win32::ToWide(AddressText(each.address)));
      masks.push_back(win32::ToWide(AddressText(MaskOf(each.prefixLength))));
    }
    step(L"EnableStatic", {{L"IPAddress", std::move(addresses)}, {L"SubnetMask", std::move(masks)}});
    setGateways(wanted);
  }
  step(L"SetDNSServerSearchOrder", {{L"DNSServerSearchOrder", Texts(wanted.dns)}});
  return done;
}

bool AdapterConfiguration::Call(const wchar_t* method, const std::vector<Argument>& arguments) {
  ComPtr<IWbemCallResult> call;
  ComPtr<IWbemClassObject> answer;
  HRESULT result = Start(method, arguments, call);
  result = Finish(result, call, kMethodWait, answer);
  Variant value;
  if (SUCCEEDED(result)) {
    result = answer->Get(L"ReturnValue", 0, value.Get(), nullptr, nullptr);
  }
  const bool answered = SUCCEEDED(result) && value->vt == VT_I4;
  const std::wstring_view name = method;
  // By kNoDhcpToSwitchOff EnableStatic says that the adapter was static before; it has set the addresses.
  if (answered && (value->lVal == kDone || value->lVal == kDoneAfterRestart ||
                   (value->lVal == kNoDhcpToSwitchOff && name == L"EnableStatic"))) {
    return true;
  }
  if (tell_) {
    const std::string text = win32::ToNarrow(name);
    if (answered) {
      log::Log(log::kError, log::kKiosk, "net.set: %s gave %ld", text.c_str(), value->lVal);
    } else {
      log::Log(log::kError, log::kKiosk, "net.set: %s failed (%s)", text.c_str(), win32::HresultText(result).c_str());
    }
  }
  return false;
}

HRESULT AdapterConfiguration::Start(const wchar_t* method, const std::vector<Argument>& arguments,
                                    ComPtr<IWbemCallResult>& call) const {
  ComPtr<IWbemClassObject> signature;
  ComPtr<IWbemClassObject> values;
  HRESULT result = class_->GetMethod(method, 0, signature.Put(), nullptr);
  if (SUCCEEDED(result) && signature) {  // none for a method without arguments
    result = signature->SpawnInstance(0, values.Put());
  }
  for (const Argument& argument : arguments) {
    if (FAILED(result) || argument.texts.empty()) {
      continue;
    }
    Variant texts;
    result = !values ? kNoAnswer : !texts.SetTexts(argument.texts) ? E_OUTOFMEMORY : S_OK;
    if (SUCCEEDED(result)) {
      result = values->Put(argument.name, 0, texts.Get(), 0);
    }
  }
  if (FAILED(result)) {
    return result;
  }
  return services_->ExecMethod(path_.Get(), MakeBstr(method).Get(), WBEM_FLAG_RETURN_IMMEDIATELY, nullptr, values.Get(),
                               nullptr, call.Put());
}

}  // namespace kiosk::network
