// The kiosk account's profile, and those of kiosk accounts that are gone. For what changes something the caller holds
// the account lock.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace kiosk::account {

// Deletes the profile of that SID text, in up to 10 attempts a second apart that end early at a stop. True when it is
// gone or there never was one; a failure is logged.
bool DeleteKioskProfile(const std::wstring& sid);

// Notes durably ("StaleProfileSids") that the profile of an account that is gone is still to be deleted, and says so in
// the log: nobody would find it any more once the account's SID is replaced. False when it cannot be noted.
bool NoteStaleProfile(const std::wstring& sid);

// Tries once to delete each of these profiles, and takes those that are gone off the note. A success is logged; a
// failure only with `forTheLastTime`, with the folder that stays behind.
void DeleteStaleProfiles(bool forTheLastTime);

// True at the first question after the start of the service and from then on once an hour, while such a profile is
// noted.
bool StaleProfilesAreDue();

// How long the worker may sleep with regard to them: an hour, or INFINITE when there is none.
DWORD StaleProfilesWait();

}  // namespace kiosk::account
