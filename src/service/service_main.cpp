#include "service/service_main.h"

#include "account/account_lock.h"
#include "account/auto_logon.h"
#include "account/kiosk_account.h"
#include "account/maintenance.h"
#include "account/provisioning.h"
#include "account/teardown.h"
#include "branding/branding_folder.h"
#include "log/event_log.h"
#include "log/log.h"
#include "pipe/server.h"
#include "pipe/service_signer.h"
#include "power/stay_awake.h"
#include "service/install.h"
#include "service/service_status.h"
#include "service/worker.h"
#include "state/kiosk_state.h"
#include "updates/report.h"
#include "updates/update_state.h"
#include "updates/window_thread.h"
#include "win32/clock.h"
#include "win32/com.h"
#include "win32/stop.h"
#include "win32/thread.h"
#include "win32/worker_wake.h"

#include <wtsapi32.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <string>

namespace kiosk::service {
namespace {

constexpr DWORD kConnectionWait = 30'000;
constexpr DWORD kConnectionPoll = 100;
// By then "running" is reported, whatever the repairs wait for: a profile in use, a sign-out, another process, an
// adapter. What is left of them goes on.
constexpr DWORD kStartBudget = 20'000;

constexpr char kWorker[] = "worker thread";
constexpr char kWindow[] = "window thread";
constexpr char kAwake[] = "awake thread";

// Set when the worker is done with the repairs, and when "running" was reported. Created before the worker, which may
// outlive the service thread, and never closed.
HANDLE repaired = nullptr;
HANDLE reportedRunning = nullptr;

// What a control sets off besides a change of the service's own state; nothing of it may keep the service from
// stopping.
template <typename Action>
void Guarded(Action action) noexcept {
  try {
    action();
  } catch (const std::exception& problem) {
    log::Log(log::kError, log::kKiosk, "a control was not followed (%s)", problem.what());
  }
}

// Windows shuts down: the service thread is to see to it, first of all, that the kiosk signs in at the next start.
std::atomic<bool> windowsShutsDown{false};

// Runs on the dispatcher's thread; waits for nothing but short locks.
DWORD WINAPI OnControl(DWORD control, DWORD eventType, void* eventData, void* /*context*/) noexcept {
  switch (control) {
    case SERVICE_CONTROL_SHUTDOWN:
      windowsShutsDown = true;
      [[fallthrough]];
    case SERVICE_CONTROL_STOP:
      ReportStopPending();
      win32::RequestStop();
      return NO_ERROR;
    case SERVICE_CONTROL_SESSIONCHANGE:
      if (const auto* change = static_cast<const WTSSESSION_NOTIFICATION*>(eventData); change != nullptr) {
        Guarded([&] { account::OnSessionChange(eventType, change->dwSessionId); });
      }
      return NO_ERROR;
    case SERVICE_CONTROL_INTERROGATE:
      return NO_ERROR;
    default:
      return ERROR_CALL_NOT_IMPLEMENTED;
  }
}

// Task Scheduler and the management instrumentation act as this service while they do what it asks for: hence the right
// to impersonate. There is no list of who may call: all that can be called are the callbacks that the update agent is
// given, and who calls them from its process is Windows' own affair.
void SecureCom(HRESULT initialised) {
  if (FAILED(initialised)) {
    return;
  }
  const HRESULT result = CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT,
                                              RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE, nullptr);
  if (FAILED(result) && result != RPC_E_TOO_LATE) {
    log::Log(log::kWarn, log::kKiosk, "CoInitializeSecurity failed (%s)", win32::HresultText(result).c_str());
  }
}

void ProtectState() {
  const state::ProtectResult result = state::ProtectStateKey();
  if (result.what != nullptr) {
    // The descriptor's failure is a last error, the other two are registry statuses: both read the same here.
    log::Log(log::kError, log::kKiosk, "%s (%lu)", result.what, result.error);
  }
}

// A thread without which the terminal would look alive and follow nothing: when it cannot run, the process ends and the
// service manager starts it anew.
win32::KernelHandle StartVital(const char* name, void (*body)()) {
  win32::KernelHandle thread = win32::StartThread([name, body]() noexcept {
    try {
      body();
    } catch (const std::exception& problem) {
      log::Log(log::kError, log::kKiosk, "%s ended by an exception (%s)", name, problem.what());
      log::EndProcess(1);
    }
  });
  if (!thread) {
    log::Log(log::kError, log::kKiosk, "cannot start the %s (%lu)", name, GetLastError());
    log::EndProcess(1);
  }
  return thread;
}

// What a stop, a kill or a restart of Windows left unfinished or out of place.
void RepairKiosk() {
  account::FinishPendingRemoval();
  if (!state::TokenIsStored()) {
    const win32::LockGuard guard(account::AccountLock());
    branding::RemoveBranding();
  }
  account::RepairAutoLogon();
  account::RepairMaintenance();
  account::RememberAdministratorSessions();
  account::TrimPrivilegedGroups();
  account::ApplyKioskPolicies();
}

// The worker's first act, which the service thread waits for; nothing of the worker's own begins before the service
// runs.
void RepairAndWork() {
  RepairKiosk();
  SetEvent(repaired);
  static_cast<void>(win32::WaitOrStop(reportedRunning, INFINITE));
  RunWorker();
}

// Returns the worker's thread.
win32::KernelHandle Start(const win32::Deadline& deadline) {
  ProtectState();
  pipe::LearnServiceSigner();
  win32::KernelHandle worker = StartVital(kWorker, RepairAndWork);
  if (WaitForSingleObject(repaired, deadline.Left()) != WAIT_OBJECT_0) {
    log::Log(log::kWarn, log::kKiosk, "start: the repairs are not done yet; they go on");
  }
  log::Log(log::kNotice, log::kKiosk, "enrolled=%d provisioned=%d maintenance=%d", state::TokenIsStored() ? 1 : 0,
           account::IsKioskProvisioned() ? 1 : 0, state::FlagIsOn(state::kMaintenance) ? 1 : 0);
  ReportRunning();
  updates::RememberOwedRestart();
  SetEvent(reportedRunning);
  log::WriteEvent(ENTRY_STARTED, {log::kVersion});
  return worker;
}

void Join(const char* name, HANDLE thread) {
  if (WaitForSingleObject(thread, win32::StopBudgetLeft()) != WAIT_OBJECT_0) {
    log::Log(log::kWarn, log::kKiosk, "stop: the %s did not end in time", name);
  }
}

// All waits share the budget that counts from the stop request.
void JoinThreads(HANDLE worker, HANDLE window, HANDLE awake) {
  Join(kWorker, worker);
  Join(kWindow, window);
  Join(kAwake, awake);
  // A connection may have begun a run of the updates, which has a thread of its own.
  const win32::Deadline deadline(std::min(kConnectionWait, win32::StopBudgetLeft()));
  while ((pipe::LiveConnections() > 0 || updates::RunIsGoing()) && !deadline.Passed()) {
    Sleep(kConnectionPoll);
  }
}

void RunService() {
  const win32::Deadline deadline(kStartBudget);
  ReportStartPending();
  log::StartBanner(log::kKiosk);
  const win32::ComApartment apartment;
  SecureCom(apartment.Result());
  const win32::KernelHandle worker = Start(deadline);
  const win32::KernelHandle window = StartVital(kWindow, updates::UpdateWindowThread);
  const win32::KernelHandle awake = StartVital(kAwake, power::AwakeThread);
  pipe::RunPipeServer();
  if (windowsShutsDown) {
    Guarded(account::PrepareForShutdown);
  }
  JoinThreads(worker.Get(), window.Get(), awake.Get());
  log::WriteEvent(ENTRY_STOPPED);
  log::StopBanner(log::kKiosk);
  ReportStopped();
}

bool CreateStartEvents() noexcept {
  repaired = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  reportedRunning = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return repaired != nullptr && reportedRunning != nullptr;
}

void WINAPI ServiceMain(DWORD /*count*/, LPWSTR* /*arguments*/) noexcept {
  if (!RegisterControls(kServiceName, OnControl)) {
    return;
  }
  try {
    if (!win32::CreateStopEvent() || !win32::CreateWorkerWake() || !CreateStartEvents()) {
      log::Log(log::kError, log::kKiosk, "cannot create the service's events (%lu)", GetLastError());
      log::EndProcess(1);
    }
    RunService();
  } catch (const std::exception& problem) {
    log::Log(log::kError, log::kKiosk, "service ended by an exception (%s)", problem.what());
    log::EndProcess(1);  // no "stopped" was reported, so the service manager restarts it
  }
}

}  // namespace

int RunDispatcher() {
  std::wstring name = kServiceName;
  const SERVICE_TABLE_ENTRYW table[] = {{name.data(), ServiceMain}, {nullptr, nullptr}};
  return StartServiceCtrlDispatcherW(table) != 0 ? 0 : 1;
}

}  // namespace kiosk::service
