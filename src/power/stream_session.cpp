#include "power/stream_session.h"

#include "win32/handle.h"

namespace kiosk::power {

bool StreamSessionIsLive() noexcept {
  const win32::KernelHandle event(OpenEventW(SYNCHRONIZE, FALSE, L"Global\\NorvaneStreamSessionActive"));
  return event && WaitForSingleObject(event.Get(), 0) == WAIT_OBJECT_0;
}

}  // namespace kiosk::power
