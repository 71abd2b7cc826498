// A change of an adapter proves itself: it stays only when the portal answers over it.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace kiosk::network {

// How many changes were made since the service began. Whoever asks the portal remembers it from before the request.
unsigned ChangesMade() noexcept;

// The portal answered with this HTTP status. Changes that were made when the request began are proven by it; not by
// 407, which is a proxy's. Called before the answer is acted on, by any thread; at once.
void NoteAnswer(unsigned madeBefore, int status);

// The rest is for whoever has the turn.

// A change of that adapter was made, shows, and is on record as unproven. Wakes the worker.
void BeginTrial(const std::wstring& adapter);

// Asked at each pass of the worker, with whether the adapter's link is up: true when that was so for 5 minutes in which
// the computer did not sleep, since the change or since the service began. Then it begins anew.
bool TrialIsOver(const std::wstring& adapter, bool linkUp);

}  // namespace kiosk::network
