#include "commands.h"
#include "state/kiosk_state.h"
#include "win32/console.h"

namespace kioskctl {

std::string WhatIsLeft(const ServiceState& service) {
  namespace state = kiosk::state;
  if (service.known) {
    return "The service NorvaneKiosk is still there. Run \"NorvaneKiosk.exe --uninstall\" as an administrator; after\n"
           "that close the windows that show services, or restart the computer.";
  }
  if (service.error != ERROR_SERVICE_DOES_NOT_EXIST) {
    return "The service manager does not tell whether the service NorvaneKiosk is there" + ErrorText(service.error) +
           ".";
  }
  for (const state::StateValue& value : {state::kAccountSid, state::kTeardownPending}) {
    state::RawValue raw;
    const LSTATUS status = state::ReadState(value, raw);
    if (status == ERROR_SUCCESS) {
      return "The kiosk account is still there: it was in use. Restart the computer and run\n"
             "\"NorvaneKiosk.exe --uninstall\" once more.";
    }
    if (status != ERROR_FILE_NOT_FOUND) {
      return "The registry does not tell whether the kiosk account is still there" +
             ErrorText(static_cast<unsigned long>(status)) + ". Run this as an administrator.";
    }
  }
  return {};
}

int Removed(const Options& /*options*/, const Words& /*words*/) {
  const std::string left = WhatIsLeft(QueryService());
  if (!left.empty()) {
    kiosk::win32::PrintError(left + "\n");
    return kServiceError;
  }
  kiosk::win32::Print("The service and the kiosk account are gone.\n");
  return kDone;
}

}  // namespace kioskctl
