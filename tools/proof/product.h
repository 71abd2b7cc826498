// The product under proof: its programs beside the kit, its service, its answers.
#pragma once

#include "tools/kioskctl/pipe_client.h"
#include "tools/proof/files.h"
#include "win32/winapi.h"

#include <string>

namespace proof {

inline constexpr DWORD kSoon = 60'000;  // ms within which the product does what it does by itself or at a start

inline std::wstring ProductProgram() { return BesideKit(L"NorvaneKiosk.exe"); }

// "--install", "--uninstall".
Ran RunProduct(const wchar_t* option);

// {"cmd": command}
kiosk::json::Value Request(const char* command);
// The "error" of a reply; "no reply" of null.
std::wstring Error(const kiosk::json::Value& reply);

// Asks the service in this process's name.
kioskctl::Answer AskService(const kiosk::json::Value& request);
// The service's reply to a person at the computer; null when there is none.
kiosk::json::Value AskProduct(kiosk::json::Value request);
kiosk::json::Value AskProduct(const char* command);
// The reply to "status" of a service that may be just starting; null when there is none within a minute.
kiosk::json::Value AwaitStatus();

// Stops the service and waits for its process to end. Milliseconds; INFINITE: it did not end in time.
DWORD StopProduct();
// Starts it and waits until it answers.
bool StartProduct();
bool RestartProduct();
// The process of the running service; 0: it does not run.
inline DWORD ProductProcess() { return kioskctl::QueryService().process; }

// All that it has logged.
std::string ProductLog();

}  // namespace proof
