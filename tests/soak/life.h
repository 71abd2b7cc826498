// One process of the service on virtual time: from its start until it is stopped, killed, or the computer restarts.
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
  // Starts the computer if it is off, and the service.
  Life();
  Life(const Life&) = delete;
  Life& operator=(const Life&) = delete;

  // Plays steps from the world's next one on, until one ends the process or none is left.
  void Play(const std::vector<Step>& steps);

 private:
  // hand.cpp: what somebody does. False when the process is to end.
  bool Do(const Step& step);
  void Pair(std::uint32_t number);
  void SignIn(std::uint32_t number);
  void SignOut(std::uint32_t number);
  void Unlock(std::uint32_t number);
  void Maintenance(std::uint32_t number);
  void MoveClock(std::uint32_t number);
  bool Restart(std::uint32_t number);
  bool Peace();
  void Setting(std::uint32_t number);
  bool Upgrade();
  bool Uninstall();
  bool Install();
  bool Ends(const std::string& reply) const;
  std::string ExitPasswordOr(bool wrong) const;

  // Lets time pass, and looks meanwhile whether the service lives. True when it went by as a whole, false when the
  // computer is about to restart, which ends it.
  bool Pass(std::uint64_t milliseconds);
  bool Wait(std::uint32_t seconds);
  // A command over the pipe's dispatcher, on a thread as a connection has it.
  std::string Ask(const pipe::CallerRecord& caller, const std::string& request);
  void StopService(DWORD control);
  void StartService();
  void RunUninstall();
  // The service is stopped and its sessions are over; Windows starts with the next process, `off` ms later.
  void Shutdown(std::uint64_t off);

  sim::VirtualClock clock_;
  sim::RandomScript random_;
  sim::ScriptedPortal portal_;
  sim::ServiceHost host_;
  win32::KernelHandle service_;
  std::string unlock_;
};

// around.cpp: a step that nobody in a session does; and the end of all that was wrong.
void Happen(const Step& step);
void Heal();

// invariants.cpp: what must hold. Always; always, of what lies on the disk; when nothing was wrong for so long; at the
// end of an hour's peace; and after an uninstall that nothing hindered.
void CheckAlways();
void CheckFiles();
bool CheckSettled();  // false where there is no healthy kiosk
void CheckPeace();
void CheckUninstalled();
inline constexpr std::uint64_t kSettled = 2'400'000;  // ms

}  // namespace kiosk::soak
