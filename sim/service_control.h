// Controls that the development machine's service manager refuses to deliver, and the reports of the service's state.
//
// While a ServiceHost exists nothing reaches the real service manager: the test is the manager. Without one the real
// manager serves, and any process delivers a control by writing the text "<control> <event type> <session>" into the
// value "Request" of the area "ServiceControl", as in
//   reg add HKLM\SOFTWARE\SimulatedWindows\ServiceControl /v Request /d "14 5 2" /f
// "Request" is gone at once, and the handler's answer then stands in the number "Answer".
#pragma once

#include "win32/winapi.h"

#include <string>
#include <vector>

namespace sim {

class ServiceHost {
 public:
  ServiceHost();
  ServiceHost(const ServiceHost&) = delete;
  ServiceHost& operator=(const ServiceHost&) = delete;
  ~ServiceHost();

  // Calls the registered handler on this thread, which so plays the dispatcher's. The event data of
  // SERVICE_CONTROL_SESSIONCHANGE names `session`.
  DWORD Deliver(DWORD control, DWORD eventType = 0, DWORD session = 0);
  // What SetServiceStatus was told, in order.
  [[nodiscard]] std::vector<SERVICE_STATUS> Reports() const;
  [[nodiscard]] std::wstring ServiceName() const;  // empty until the handler is registered
};

// While a ServiceHost exists, whoever may only ask for the state of its service gets this handle for the service's
// name, and QueryServiceStatusEx answers with the last report, and with this process until that is "stopped". Null for
// others.
inline const SC_HANDLE kHostedService = reinterpret_cast<SC_HANDLE>(0x52);
SC_HANDLE OpenHosted(const wchar_t* name, DWORD access);

// A service of this process, or else one under the real service manager, is there to hear of sessions.
bool ServiceListens();
// Tells it, if there is one, and returns when its handler has.
void DeliverSessionChange(DWORD eventType, DWORD session);

}  // namespace sim
