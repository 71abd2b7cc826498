// The changes to an adapter's IPv4 that Windows offers through its management instrumentation.
#pragma once

#include "network/adapter_settings.h"
#include "win32/com.h"

#include <wbemcli.h>

#include <string>
#include <utility>
#include <vector>

namespace kiosk::network {

// The Win32_NetworkAdapterConfiguration of one adapter, for a thread that is in a COM apartment. Each method may take a
// minute and ends early on a stop. With `tell`, what fails is logged with the method's name and its number.
class AdapterConfiguration {
 public:
  // `adapter` as Windows spells it.
  AdapterConfiguration(std::wstring adapter, bool tell) : adapter_(std::move(adapter)), tell_(tell) {}

  bool Open();
  // Takes every step from `now` to `wanted`, except gateways beside DHCP (see gateways.h). False when a step fails: at
  // once, or with `insist` after all the others were tried.
  bool Apply(const Settings& now, const Settings& wanted, bool insist);

 private:
  struct Argument {
    const wchar_t* name;
    std::vector<std::wstring> texts;
  };
  // An argument without texts is left out, which Windows takes for "none" where the argument is optional.
  bool Call(const wchar_t* method, const std::vector<Argument>& arguments);
  HRESULT Start(const wchar_t* method, const std::vector<Argument>& arguments,
                win32::ComPtr<IWbemCallResult>& call) const;
  HRESULT Find();

  std::wstring adapter_;
  bool tell_;
  win32::ComPtr<IWbemServices> services_;
  win32::ComPtr<IWbemClassObject> class_;
  win32::Bstr path_;
};

}  // namespace kiosk::network
