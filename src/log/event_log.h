// Entries in Windows' event log (log "Application", source "NorvaneKiosk"): the few moments of a terminal's life that
// an administrator's monitoring waits for. Their numbers and texts are in event_messages.mc. An entry that Windows does
// not take is lost, and one line of the log says so until Windows takes one again.
#pragma once

#include "win32/winapi.h"

#include <event_messages.h>

#include <initializer_list>
#include <string_view>

namespace kiosk::log {

inline constexpr wchar_t kEventSource[] = L"NorvaneKiosk";
inline constexpr wchar_t kEventSourceKey[] =
    L"SYSTEM\\CurrentControlSet\\Services\\EventLog\\Application\\NorvaneKiosk";

// Writes the entry of that number (ENTRY_...) with these short UTF-8 texts in the place of its %1 and %2; none may be
// a secret or name a person. The service that takes entries may hang: the caller waits for 2 s at most, and while four
// entries are on their way others are lost at once. Any thread may call, under any lock but
// a leaf.
void WriteEvent(DWORD number, std::initializer_list<std::string_view> texts = {});

// The same on the calling thread, for as long as it takes, and without a line in the log: for the crash reporter, whose
// time has another limit.
void WriteEventHere(DWORD number, std::initializer_list<std::string_view> texts);

// What lasts. A bit each of the state value "ToldTroubles"; a bit keeps its meaning for good.
enum Trouble : DWORD {
  kSetUpFails = 1,
  kPortalAway = 2,
  kUpdatesFail = 4,
  kClockWrong = 8,
  kLogFolderUnusable = 16,
};
inline constexpr DWORD kTroublesOfEnrolment = kSetUpFails | kPortalAway | kUpdatesFail;

// Writes the entry unless that trouble was told before and is not over since, which outlasts this process.
void TellTrouble(Trouble trouble, DWORD number, std::initializer_list<std::string_view> texts = {});

// Forgets that these troubles were told; true when one of them was. Changes nothing otherwise.
bool TroubleIsOver(DWORD troubles);

}  // namespace kiosk::log
