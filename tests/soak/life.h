// One process of the program on virtual time: of the service, from its start until it is stopped, killed, or the
// computer restarts; or of an errand.
#pragma once

#include "pipe/caller.h"
#include "sim/clock.h"
#include "sim/http.h"
#include "sim/random.h"
#include "sim/service_control.h"
#include "tests/soak/steps.h"
#include "win32/handle.h"

#include <string>
#include <vector>

namespace kiosk::soak {

class Life {
 public:
  // Starts the computer if it is off, and the service, or does the world's errand.
  Life();
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  // Plays steps from the world's next one on, until one ends the process or none is left.
  void Play(const std::vector<Step>& steps);

  // For the steps. Lets time pass, and looks meanwhile whether all holds. False when the computer is about to restart,
  // which ends it.
  bool Wait(std::uint32_t seconds);
  // A command over the pipe's dispatcher, on a thread as a connection has it.
  std::string Ask(const pipe::CallerRecord& caller, const std::string& request);
  sim::VirtualClock& Clock() { return clock_; }
  // Time that goes by while nothing runs; the tick count does not go on.
  void Skip(std::uint64_t milliseconds);
  void StopService(DWORD control);
  void End() { ends_ = true; }  // the process, after this step
  // Stops the service and ends the process; Windows starts with the next one, `off` ms later.
  void Shutdown(std::uint64_t off);

  std::string unlock;  // the token of the last one

 private:
  void StartService();
  void DoErrand();
  bool Pass(std::uint64_t milliseconds);
  void Until(HANDLE thread, std::uint64_t patience, const std::string& broken);

  sim::VirtualClock clock_;
  sim::RandomScript random_;
  sim::ScriptedPortal portal_;
  sim::ServiceHost host_;
  win32::KernelHandle service_;
  bool ends_ = false;
};

// A process with a Life; its exit code.
intptr_t RunLife();

// around.cpp: what nobody in a session does; and the end of all that was wrong.
inline constexpr wchar_t kNamesakesPassword[] = L"Namesake-4711";  // of somebody's account that has the kiosk's name
void FailWindows(std::uint32_t number);
void FailOneChange(std::uint32_t number);
void OfferUpdate(std::uint32_t number);
void BeAStranger(std::uint32_t number);
void SetClient(bool there);
void Heal();

// invariants.cpp: what must hold. Always; always, of what lies on the disk; when nothing was wrong for so long; at the
// end of an hour's peace; and after an uninstall that nothing hindered.
void CheckAlways();
void CheckFiles();
bool CheckSettled();  // false where there is no healthy kiosk
void CheckPeace();
void CheckMemory(
    std::uint32_t kilobytes);  // at most so many more than at the first call in this process, no handle more
void CheckUninstalled();
inline constexpr std::uint64_t kSettled = 2'400'000;  // ms with the service running

}  // namespace kiosk::soak
