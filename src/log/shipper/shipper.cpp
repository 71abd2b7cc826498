#include "log/shipper/shipper.h"

#include "log/log.h"
#include "log/shipper/ring.h"
#include "log/shipper/sender.h"
#include "win32/clock.h"
#include "win32/thread.h"

#include <algorithm>
#include <atomic>
#include <exception>

namespace kiosk::log::shipper {
namespace {

// Of the time for a stop: what is kept for writing down the lines of a sender that is stuck.
constexpr unsigned kRescueTime = 500;

// Written while logging is initialised, before anybody else comes here. Kept as long as the process: the thread may be
// left behind in a request.
SenderThread* sender = nullptr;
HANDLE stopEvent = nullptr;
HANDLE thread = nullptr;
const char* problem = "";
std::atomic<bool> stopped{false};

std::uint64_t ProcessStart() noexcept {
  FILETIME created{};
  FILETIME other{};
  return GetProcessTimes(GetCurrentProcess(), &created, &other, &other, &other) == 0
             ? 0
             : win32::UnixMilliseconds(win32::FileTimeValue(created));
}

Sender SenderOf(const Identity& identity) {
  return {.host = identity.host,
          .machine = identity.machine,
          .tenant = identity.tenant,
          .site = identity.site,
          .install = identity.install,
          .appVersion = kVersion,
          .started = ProcessStart(),
          .pid = GetCurrentProcessId()};
}

}  // namespace

bool Start(const Identity& identity, bool spoolUsable) {
  std::optional<Settings> settings = ReadSettings(problem);
  if (!settings) {
    return false;
  }
  const HANDLE wake = CreateEventW(nullptr, FALSE, FALSE, nullptr);
  stopEvent = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (wake == nullptr || stopEvent == nullptr || !MakeRing(wake)) {
    problem = "there is not enough memory";
    return false;
  }
  sender = new SenderThread(std::move(*settings), SenderOf(identity), wake, stopEvent);
  if (spoolUsable) {
    sender->UseSpool();
  }
  sender->LoadKeptConfig();
  thread = win32::StartThread([]() noexcept { sender->Run(); }).Release();
  if (thread == nullptr) {
    AcceptUpTo(-1);
    problem = "its thread cannot be started";
  }
  return thread != nullptr;
}

void UseSpool() noexcept {
  if (sender != nullptr) {
    sender->UseSpool();
  }
}

const char* Problem() noexcept { return problem; }

void HandOff(int level, const char* component, std::string_view message) noexcept { Push(level, component, message); }

void Stop(unsigned milliseconds) noexcept {
  if (thread == nullptr || stopped.exchange(true)) {
    return;
  }
  AcceptUpTo(-1);
  SetEvent(stopEvent);
  if (WaitForSingleObject(thread, milliseconds - std::min(milliseconds, kRescueTime)) == WAIT_OBJECT_0) {
    return;
  }
  try {
    sender->Rescue();
  } catch (const std::exception&) {
    return;  // out of memory at the very end: the lines stand in the local files
  }
}

}  // namespace kiosk::log::shipper
