#pragma once

namespace kiosk::service {

// Narrows what this process loads and follows: libraries come from the system directory alone, none from a network
// share, no legacy extension points, no links that a plain user planted. First thing in main. What a version of Windows
// does not know is left out silently. Policies that would break COM or foreign in-process providers (such as
// dynamic-code or signature restrictions) are not among them.
void HardenProcess() noexcept;

}  // namespace kiosk::service
