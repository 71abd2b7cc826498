// Entry of the program: the installer of the service, what its scheduled tasks run, and the service itself.
#include "log/log.h"
#include "power/sleep_wake.h"
#include "service/crash.h"
#include "service/hardening.h"
#include "service/install.h"
#include "service/service_main.h"
#include "win32/wide_text.h"
#include "win32/winapi.h"

int wmain(int count, wchar_t** arguments) {
  kiosk::service::HardenProcess();
  kiosk::service::InstallCrashHandler();
  const wchar_t* task = count > 1 ? arguments[1] : L"";
  int exitCode = 0;
  if (kiosk::win32::EqualIgnoringCase(task, L"--install")) {
    exitCode = kiosk::service::Install();
  } else if (kiosk::win32::EqualIgnoringCase(task, L"--uninstall")) {
    exitCode = kiosk::service::Uninstall();
  } else if (kiosk::win32::EqualIgnoringCase(task, L"--sleep-now")) {
    exitCode = kiosk::power::SleepNow();
  } else if (kiosk::win32::EqualIgnoringCase(task, L"--wake-now")) {
    exitCode = kiosk::power::WakeNow();
  } else {
    exitCode = kiosk::service::RunDispatcher();
  }
  kiosk::log::CloseCentral();
  // Not a return: connection threads that outlived the stop must not run through the C library's clean-up.
  ExitProcess(static_cast<UINT>(exitCode));
}
