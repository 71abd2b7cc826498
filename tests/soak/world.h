// What outlives a process of the service besides the simulated machine itself: the time, the portal, what is wrong at
// the moment, and what was counted. One record in the registry, written whole whenever the process may end.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kiosk::soak {

enum class Errand : std::uint32_t { kNone, kUninstall, kSleepNow, kWakeNow };

struct World {
  // The computer's clock, in 100 ns units since 1601; ms since Windows started; UTC - local time in minutes.
  std::uint64_t utc = 0;
  std::uint64_t ticks = 1;
  std::int32_t bias = 0;
  // Milliseconds all in all; with the service running; and how many of these when something was wrong last.
  std::uint64_t lived = 0, served = 0, troubleAt = 0;

  std::uint32_t next = 0;      // the step that comes
  std::uint32_t waitLeft = 0;  // s of the step before, which a restart interrupted
  std::uint32_t peace = 0;     // how far that step has come
  bool boot = true;            // Windows starts with the next process
  bool over = false;           // all steps were played
  bool installed = true;
  Errand errand = Errand::kNone;  // what the next process does instead of being the service

  // The portal: which token is the terminal's, 0 for none, and how many it has given out.
  std::uint32_t issued = 0, valid = 0;
  bool claimed = false;
  std::uint32_t outage = 0, logOutage = 0;
  std::uint32_t policy = 0;

  // What fails on the computer.
  std::uint32_t disk = 0;
  bool stateKeyRefused = false;
  std::uint32_t killIn = 0;  // that many changes from now; 0: not
  bool killsPower = false;
  std::uint32_t failIn = 0;
  std::uint32_t failError = 0;
  bool windowsFails = false;
  bool secretsFailed = false;  // at some time
  bool namesake = false;       // somebody's own account has the kiosk's name

  std::uint32_t lives = 0, kills = 0, boots = 0, removals = 0, checkIns = 0, provisioned = 0;
};

inline constexpr wchar_t kSoakKey[] = L"SOFTWARE\\KioskSoak";

// Of this process. Written by the thread that plays the steps, and by whoever answers for the portal or ends the
// process while that thread waits: the clock lets one of them run at a time.
extern World world;
void LoadWorld();
void SaveWorld();

// Texts beside it: the steps, the computer as its owner had it, why it ended.
std::string ReadNote(const wchar_t* name);
void WriteNote(const wchar_t* name, const std::string& text);

// While one lives, what this thread changes is done by somebody else's hand and neither fails nor counts.
class Hand {
 public:
  Hand();
  Hand(const Hand&) = delete;
  Hand& operator=(const Hand&) = delete;
  ~Hand();
  static bool IsHere();
};

[[noreturn]] void EndProcess(unsigned code);

// What must hold does not: notes the sentence down and ends the process.
[[noreturn]] void Broken(const std::string& sentence);
inline void Need(bool holds, const std::string& sentence) {
  if (!holds) {
    Broken(sentence);
  }
}
inline constexpr unsigned kBrokenExitCode = 3;

// A computer of an owner's, with what is set before the product is installed, at the beginning of its life.
void MakeComputer();
// What an administrator and the client's installer set.
void SetUpProduct();

}  // namespace kiosk::soak
