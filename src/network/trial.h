// A change of an adapter proves itself: it stays only when the portal answers over it.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace kiosk::network {

// How many changes were made since the service began. Whoever asks the portal remembers it from before the request.
unsigned ChangesMade() noexcept;

// The portal answered with this HTTP status. That proves the changes that were made before the request began
// (`madeBefore`: what ChangesMade said then), and their record is deleted; a 407 proves nothing, since a proxy sent it.
// To be called before the answer is acted on. Any thread; returns at once.
void NoteAnswer(unsigned madeBefore, int status);

// The rest is for whoever has the turn.

// A change of that adapter was made, shows, and is on record as unproven. Wakes the worker.
void BeginTrial(const std::wstring& adapter);

// Asked at each pass of the worker. True when the adapter's link was up for 5 minutes since the change or the start of
// the service; time in which the computer slept does not count. The 5 minutes then begin anew.
bool TrialIsOver(const std::wstring& adapter, bool linkUp);

}  // namespace kiosk::network
