// Sessions of the simulated machine: area "Sessions\<id>" with the texts "User" and "Domain", and "Sid" of an account
// that signed in. Without that area the real calls answer for this process's own session, and only session 0 is
// enumerated. Signing in and out reaches the service's control handler, be it hosted by this process or running in
// another one.
#pragma once

#include "sim/machine.h"

#include <string>

namespace sim {

// As found at the start of a test, with no further effect. Nobody is signed in to a session whose user is empty.
void SetSession(DWORD id, const std::wstring& user, const std::wstring& domain);
void EndSession(DWORD id);

// Signs a simulated account in at the console: makes its profile where there is none, loads its hive, notes the time
// and, as Windows does, the user in Winlogon's DefaultUserName and DefaultDomainName, tells the service. `session` 0:
// the next one. Returns the session; 0 when there is no such account, or no hive of its own to load (Windows then signs
// in with a temporary profile and its own shell).
DWORD SignIn(const std::wstring& user, DWORD session = 0);
// Ends the session, unloads the hive with the account's last one, tells the service.
void SignOut(DWORD session);
// A sign-out that WTSLogoffSession asks for takes so long; INFINITE: it never happens.
void MakeStubborn(DWORD session, DWORD milliseconds);
// Where the account (a SID) is signed in; 0: nowhere.
DWORD SessionOf(const std::wstring& sid);
inline const Field<> sessionListError{L"", L"SessionListError"};  // of WTSEnumerateSessionsW
void EndAllSessions();  // silently, as the computer stops; the next sign-in opens session 1

}  // namespace sim
