#include "tests/soak/life.h"

#include "json/serialise.h"
#include "log/log.h"
#include "pipe/dispatch.h"
#include "power/sleep_wake.h"
#include "service/install.h"
#include "service/service_main.h"
#include "sim/com.h"
#include "sim/computer.h"
#include "sim/faults.h"
#include "sim/program_files.h"
#include "sim/shutdown.h"
#include "tests/soak/portal.h"
#include "tests/soak/world.h"
#include "win32/thread.h"

#include <process.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <utility>

namespace kiosk::soak {
namespace {

constexpr std::uint64_t kSecond = 1000;
constexpr std::uint64_t kStartTime = 30 * kSecond;
constexpr std::uint64_t kStopTime = 45 * kSecond;
constexpr std::uint64_t kLongestCommand = 900 * kSecond;
constexpr std::uint64_t kLook = 60 * kSecond;  // whether the computer is to restart
constexpr std::uint32_t kLooks = 600;          // s, whether all holds

// The clock of this process, for the hook below, and what the world knows of its time. Null outside of a life.
sim::VirtualClock* running = nullptr;
std::uint64_t kept = 0;

void KeepTime() {
  const std::uint64_t now = running->Elapsed();
  const std::uint64_t gone = now - std::exchange(kept, now);
  world.utc = running->SystemTime();
  world.ticks += gone;
  world.lived += gone;
  world.served += world.installed ? gone : 0;
  SaveWorld();
}

void KillHere() {
  const Hand hand;
  KeepTime();
  ++world.kills;
  world.boot = world.killsPower;
  world.troubleAt = world.served;
  SaveWorld();
  EndProcess(sim::kFaultExitCode);
}

bool IsFile(const sim::ChangeCall& call) { return call.object.starts_with(L"c:\\"); }

bool IsStateKey(const sim::ChangeCall& call) {
  return call.object.find(L"\\Norvane\\Tessaly\\Kiosk") != std::wstring::npos;
}

bool Frees(const sim::ChangeCall& call) {
  return call.function == "DeleteFileW" || call.function == "RemoveDirectoryW" || call.function == "FlushFileBuffers" ||
         call.function == "SetFileInformationByHandle";
}

// The calls that were ever refused, each once, in small letters as differences are named.
void NoteRefused(const sim::ChangeCall& call) {
  std::string text = call.Text();
  std::transform(text.begin(), text.end(), text.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  if (const std::string refused = ReadNote(L"Refused"); refused.find(text) == std::string::npos) {
    WriteNote(L"Refused", refused + text + "\n");
  }
}

// Values and files written so far, those of an update run aside, and the last of them. A value that is deleted may not
// have been there.
std::uint64_t changes = 0;
std::string lastChange;

// What the computer's faults make of a change by the service.
DWORD OnChange(const sim::ChangeCall& call) {
  if (Hand::IsHere() || running == nullptr) {
    return 0;
  }
  if ((call.function.starts_with("RegSet") && call.object.find(L"\\OsUpdates") == std::wstring::npos) || IsFile(call)) {
    ++changes;
    lastChange = call.Text();
  }
  if (world.killIn != 0 && --world.killIn == 0) {
    KillHere();
  }
  DWORD error = 0;
  if (world.failIn != 0 && --world.failIn == 0) {
    error = world.failError;
  } else if (world.stateKeyRefused && IsStateKey(call)) {
    error = ERROR_ACCESS_DENIED;
  } else if (world.disk == 1 && IsFile(call) && !Frees(call)) {
    error = ERROR_DISK_FULL;
  } else if (world.disk == 2 && IsFile(call)) {
    error = ERROR_WRITE_PROTECT;
  }
  if (error != 0) {
    const Hand hand;
    world.troubleAt = world.served;
    NoteRefused(call);
  }
  return error;
}

}  // namespace

Life::Life()
    : clock_(world.utc, world.bias, world.ticks), random_([](unsigned char* buffer, std::size_t size) {
        static Random random(world.lives);
        std::generate_n(buffer, size, [] { return static_cast<unsigned char>(random.Next()); });
        return true;
      }) {
  const Hand hand;
  clock_.Serialise();
  running = &clock_;
  sim::SetChangeHook(OnChange);
  sim::SetViolationHandler([](const char* sentence) { Broken(std::string("contract: ") + sentence); });
  ScriptPortal(portal_);
  ++world.lives;
  if (world.boot) {
    ++world.boots;
    world.boot = false;
    sim::RestartComputer();
  }
  SaveWorld();
  if (world.errand != Errand::kNone) {
    DoErrand();
  } else if (world.installed) {
    StartService();
  }
}

void Life::StartService() {
  // Else Windows would be asked to judge the file, which takes longer than all else at a start.
  wchar_t own[MAX_PATH];
  sim::SignFile(std::wstring(own, GetModuleFileNameW(nullptr, own, MAX_PATH)), L"CN=Norvane");
  service_ = win32::StartThread([]() noexcept {
    service::RunDispatcher();
    log::CloseCentral();
  });
  Pass(kStartTime);
  Need(!host_.Reports().empty() && host_.Reports().back().dwCurrentState == SERVICE_RUNNING,
       "start: the service does not run after " + std::to_string(kStartTime) + " ms");
}

// A process of the program beside the service, or after it was stopped.
void Life::DoErrand() {
  int code = 0;
  const win32::KernelHandle program = win32::StartThread([&code]() noexcept {
    code = world.errand == Errand::kUninstall  ? service::Uninstall()
           : world.errand == Errand::kSleepNow ? power::SleepNow()
                                               : power::WakeNow();
    log::CloseCentral();
  });
  Until(program.Get(), kLongestCommand, "stop: the uninstall or a task does not end");
  if (world.errand != Errand::kUninstall) {
    EndProcess(static_cast<unsigned>(code));
  }
  world.errand = Errand::kNone;
  world.installed = false;
  SaveWorld();
}

void Life::Until(HANDLE thread, std::uint64_t patience, const std::string& broken) {
  const std::uint64_t end = clock_.Elapsed() + patience;
  while (WaitForSingleObject(thread, 0) != WAIT_OBJECT_0) {
    Need(clock_.Elapsed() < end, broken);
    clock_.RunFor(100);
  }
  KeepTime();
}

bool Life::Pass(std::uint64_t milliseconds) {
  clock_.RunFor(milliseconds);
  KeepTime();
  sim::ScriptedPortal::ForgetRequests();
  Need(!service_ || WaitForSingleObject(service_.Get(), 0) != WAIT_OBJECT_0, "stop: the service has ended by itself");
  return !sim::PendingShutdown();
}

bool Life::Wait(std::uint32_t seconds) {
  world.waitLeft = seconds;
  bool steady = false;
  std::uint64_t before = 0;
  while (world.waitLeft != 0) {
    const std::uint64_t next = std::min<std::uint64_t>(world.waitLeft * kSecond, kLook);
    world.waitLeft -= static_cast<std::uint32_t>(next / kSecond);
    if (!Pass(next)) {
      return false;
    }
    if (world.waitLeft % kLooks < kLook / kSecond) {
      CheckAlways();
      const bool settled = world.served - world.troubleAt > kSettled && CheckSettled();
      Need(!settled || !steady || changes == before, "steady: a kiosk with nothing to do changes " + lastChange);
      steady = settled;
      before = changes;
    }
  }
  return true;
}

std::string Life::Ask(const pipe::CallerRecord& caller, const std::string& request) {
  if (!service_) {
    return {};
  }
  auto reply = std::make_shared<std::string>();
  const win32::KernelHandle thread = win32::StartThread([=]() noexcept {
    command::PostReplyAction after = nullptr;
    *reply = json::Serialise(pipe::Dispatch(caller, request, after));
    if (after != nullptr) {
      after();
    }
  });
  Until(thread.Get(), kLongestCommand, "commands: no reply to " + request);
  return *reply;
}

void Life::StopService(DWORD control) {
  if (!service_) {
    return;
  }
  host_.Deliver(control);
  Until(service_.Get(), kStopTime, "stop: the service takes longer than " + std::to_string(kStopTime) + " ms");
  clock_.RunFor(2 * kSecond);  // what WinHTTP still has in hand
  Need(host_.Reports().back().dwCurrentState == SERVICE_STOPPED, "stop: no report of it");
  Need(sim::OpenHttpHandles() == 0 && sim::LiveComObjects() == 0,
       "growth: " + std::to_string(sim::OpenHttpHandles()) + " requests and " + std::to_string(sim::LiveComObjects()) +
           " COM objects are left at the end");
}

void Life::Skip(std::uint64_t milliseconds) {
  clock_.SetSystemTime(clock_.SystemTime() + milliseconds * 10'000);
  world.lived += milliseconds;
  KeepTime();
}

void Life::Shutdown(std::uint64_t off) {
  StopService(SERVICE_CONTROL_SHUTDOWN);
  world.boot = true;
  world.utc += off * 10'000;
  world.lived += off;
  world.ticks = 1;
  ends_ = true;
}

void Life::Play(const std::vector<Step>& steps) {
  bool restarts = !Wait(world.waitLeft);
  while (!restarts && !ends_ && (world.next < steps.size() || world.peace != 0)) {
    const Step& step = steps[world.peace != 0 ? world.next - 1 : world.next++];
    if (!step.Is("Wait") && !step.Is("Peace")) {
      world.troubleAt = world.served;
    }
    SaveWorld();
    {
      const Hand hand;
      step.kind->play(*this, step.number);
    }
    if (!ends_) {
      CheckAlways();
      CheckFiles();
      restarts = sim::PendingShutdown().has_value();
    }
  }
  if (restarts) {
    Shutdown(40 * kSecond);
  }
  world.over = !ends_;
  SaveWorld();
}

intptr_t RunLife() {
  wchar_t self[MAX_PATH];
  GetModuleFileNameW(nullptr, self, MAX_PATH);
  static_cast<void>(std::fflush(stdout));
  intptr_t code = -1;
  for (int tries = 0; tries < 3; ++tries) {  // Wine loses one in some thousand before it begins
    errno = 0;
    code = _wspawnl(_P_WAIT, self, L"kiosk_soak", L"life", nullptr);
    if (code != -1 || errno == 0) {
      break;
    }
  }
  return code;
}

}  // namespace kiosk::soak
