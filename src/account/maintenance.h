// Maintenance mode: the kiosk account is signed out and does not sign in by itself, until the administrator who came in
// between signs out or Windows restarts.
#pragma once

#include "command/request.h"
#include "win32/winapi.h"

namespace kiosk::account {

// The command "maintenance". The "unlockToken" of the caller's own session opens it without a password; otherwise the
// exit "password" does. Reply: {"ok": true}, with the sign-out of the kiosk account left to be done after it, or an
// error with a code of VerifyExitPassword or "not_unlocked" (a token that is not valid, and no password). Writes
// "MaintenanceAt" and "Maintenance", switches automatic sign-in off and ends the unlock of the terminal settings. Takes
// the account lock.
json::Value Maintenance(const command::Request& request);

// Nothing unless maintenance is on. Deletes "MaintenanceAt", puts the names of automatic sign-in right and switches it
// on, then deletes "Maintenance". `reason` goes into the log. Takes no lock but leaves; asks the local security
// authority, so the control handler does not call it. True when automatic sign-in is on again. When it could not be
// switched on, maintenance stays on and the next start of the service ends it.
bool EndMaintenance(const char* reason);

// At the start of the service, before other threads exist: maintenance does not survive a restart of Windows. One that
// a power cut ended is over for the service but not for Windows, which has read by then that nobody signs in by itself:
// the computer is restarted 5 minutes later, unless somebody uses it. Also over is one that was marked and no more,
// with automatic sign-in still on: the kiosk is signed in, and whoever asked for it got no answer.
void RepairMaintenance();

// As Windows shuts down, on the service thread: from here on the kiosk signs in at the next start.
void PrepareForShutdown();

// At the start of the service: an administrator who is signed in already ends maintenance by signing out, too.
void RememberAdministratorSessions();

// A sign-in (WTS_SESSION_LOGON) or sign-out (WTS_SESSION_LOGOFF), from the control handler; other events do nothing.
// Waits for nothing but short locks: maintenance ends on a thread of its own.
void OnSessionChange(DWORD event, DWORD session);

}  // namespace kiosk::account
