#pragma once

namespace kiosk::power {

// Whether a stream session is live on this computer. Another program says so by a named event, which it makes and sets
// for as long as one is; without that program there is none.
bool StreamSessionIsLive() noexcept;

}  // namespace kiosk::power
