// The one log call of the program, and the banners around a run.
//
// Any thread may log at any time, while it holds any lock but the log's own; the first call initialises logging. A call
// never fails its caller, allocates nothing (save when a file is opened) and makes one whole line of its message
// whatever bytes the message holds.
#pragma once

#include "version.h"

// The C99 conversions, also where the system's own C library has others.
#ifdef __clang__
#define NORVANE_PRINTF(text, first) __attribute__((format(printf, text, first)))
#else
#define NORVANE_PRINTF(text, first) __attribute__((format(gnu_printf, text, first)))
#endif

namespace kiosk::log {

// Syslog numbers. Lower is graver.
enum Level : int {
  kError = 3,   // failures
  kWarn = 4,    // refusals, degraded operation
  kNotice = 5,  // start-up, state changes, actions taken; labelled INFO and never raised
  kInfo = 6,    // chatty; raised to kError when it holds a word of failure
  kDebug = 7,
};

inline constexpr char kVersion[] = NORVANE_VERSION_TEXT;

// The component of every line of this service.
inline constexpr char kKiosk[] = "Kiosk";

// printf-style; text is UTF-8. Wide text goes through win32::ToNarrow first, because %ls writes nothing for characters
// outside ASCII. `component` names the file the line goes to, at most 63 characters.
void Log(int level, const char* component, const char* format, ...) NORVANE_PRINTF(3, 4);

// Initialises logging, chooses today's folder, and writes who and what is starting.
void StartBanner(const char* component);

// A folder of the log tree that could not be secured, so that no line is kept in files, and Windows' error.
struct UnsecuredFolder {
  const wchar_t* path = nullptr;  // null: all of them are secured
  unsigned long error = 0;
};
UnsecuredFolder LogTreeProblem() noexcept;

// Writes that the program is shutting down and stops central shipping (at most 2 s).
void StopBanner(const char* component);

// Ends central shipping without a word (at most 2 s): unsent lines go to the spool, later ones to local files alone.
// For the end of a process that wrote no banner; does nothing a second time, or when nobody logged.
void CloseCentral();

// Ends the process at once with `exitCode`, without running anything of a caller or of a library on the way.
[[noreturn]] void EndProcess(unsigned exitCode) noexcept;

}  // namespace kiosk::log
