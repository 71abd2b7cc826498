// Whether the terminal is still what it was when somebody asked the portal about it.
#pragma once

#include "win32/lock.h"

#include <string>

namespace kiosk::enrolment {

// True while what was learnt with `tokenUsed` still counts: the stored token equals it and no teardown is marked. An
// empty token never does. Whoever applies an answer of the portal asks this under the lock of what it changes, and once
// more under the account lock before the account is touched.
bool StillEnrolled(const std::string& tokenUsed);

// A token is stored and no teardown is marked: for what concerns the terminal as it is now, whoever enrolled it.
bool IsEnrolled();

// Guards the values that answers of the portal write ("UnknownSince", "SignIn", "TerminalName", the policies and their
// sources); a leaf. A teardown takes it once between its mark and its first deletion, so that no answer is written
// behind its back.
win32::Lock& ReplyLock() noexcept;

}  // namespace kiosk::enrolment
