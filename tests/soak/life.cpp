#include "tests/soak/life.h"

#include "json/serialise.h"
#include "log/log.h"
#include "pipe/dispatch.h"
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

#include <algorithm>
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
  world.troubleAt = world.lived;
  SaveWorld();
  TerminateProcess(GetCurrentProcess(), sim::kFaultExitCode);
  Sleep(INFINITE);
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
    world.troubleAt = world.lived;
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
  if (world.uninstalling) {
    RunUninstall();
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

// Another process than the service's, which it would stop first.
void Life::RunUninstall() {
  const win32::KernelHandle process = win32::StartThread([]() noexcept {
    service::Uninstall();
    log::CloseCentral();
  });
  const std::uint64_t end = clock_.Elapsed() + kLongestCommand;
  while (WaitForSingleObject(process.Get(), 0) != WAIT_OBJECT_0) {
    Need(clock_.Elapsed() < end, "stop: the uninstall does not end");
    clock_.RunFor(kSecond);
  }
  KeepTime();
  world.uninstalling = world.installed = false;
  SaveWorld();
}

bool Life::Pass(std::uint64_t milliseconds) {
  clock_.RunFor(milliseconds);
  KeepTime();
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
      const bool settled = world.lived - world.troubleAt > kSettled && CheckSettled();
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
  const std::uint64_t end = clock_.Elapsed() + kLongestCommand;
  do {
    clock_.RunFor(100);
    Need(clock_.Elapsed() < end, "commands: no reply to " + request);
  } while (WaitForSingleObject(thread.Get(), 0) != WAIT_OBJECT_0);
  KeepTime();
  return *reply;
}

void Life::StopService(DWORD control) {
  if (!service_) {
    return;
  }
  host_.Deliver(control);
  const std::uint64_t end = clock_.Elapsed() + kStopTime;
  while (WaitForSingleObject(service_.Get(), 0) != WAIT_OBJECT_0) {
    Need(clock_.Elapsed() < end, "stop: the service takes longer than " + std::to_string(kStopTime) + " ms");
    clock_.RunFor(250);
  }
  KeepTime();
  clock_.RunFor(2 * kSecond);  // what WinHTTP still has in hand
  Need(host_.Reports().back().dwCurrentState == SERVICE_STOPPED, "stop: no report of it");
  Need(sim::OpenHttpHandles() == 0 && sim::LiveComObjects() == 0,
       "growth: " + std::to_string(sim::OpenHttpHandles()) + " requests and " + std::to_string(sim::LiveComObjects()) +
           " COM objects are left at the end");
}

void Life::Shutdown(std::uint64_t off) {
  StopService(SERVICE_CONTROL_SHUTDOWN);
  world.boot = true;
  world.utc += off * 10'000;
  world.lived += off;
  world.ticks = 1;
  SaveWorld();
}

void Life::Play(const std::vector<Step>& steps) {
  if (!Wait(world.waitLeft)) {
    Shutdown(40 * kSecond);
    return;
  }
  while (world.next < steps.size() || world.peace != 0) {
    const Step step = world.peace != 0 ? Step{Kind::kPeace} : steps[world.next++];
    SaveWorld();
    if (!Do(step)) {
      return;
    }
    CheckAlways();
    CheckFiles();
    if (sim::PendingShutdown()) {
      Shutdown(40 * kSecond);
      return;
    }
  }
  world.over = true;
  SaveWorld();
}

}  // namespace kiosk::soak
