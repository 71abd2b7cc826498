#pragma once

namespace kiosk::service {

// The heartbeat of the service: checks in every 30 s while the terminal is enrolled, backs off up to 10 min while the
// portal gives no usable answer, and sleeps until woken while it is not enrolled. Acts on a revocation, keeps the kiosk
// account set up and its policies in force, and completes what a teardown left. Returns when the stop event is set.
void RunWorker();

}  // namespace kiosk::service
