// Controls that the development machine's service manager refuses to deliver, and the reports of the service's state.
//
// While a ServiceHost exists nothing reaches the real service manager: the test is the manager. Without one the real
// manager serves, and any process delivers a control by writing the text "<control> <event type> <session>" into the
// value "Request" of the area "ServiceControl", as in
//   reg add HKLM\SOFTWARE\SimulatedWindows\ServiceControl /v Request /d "14 5 2" /f
// The handler's answer then stands in the number "Answer", and "Request" is gone.
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

}  // namespace sim
