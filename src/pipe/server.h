// The local pipe of the service: the accept loop and the count of what it started.
#pragma once

namespace kiosk::pipe {

inline constexpr wchar_t kPipeName[] = L"\\\\.\\pipe\\NorvaneKiosk";

// Serves the pipe until the service is to stop; returns only then, while connections may still be open. Called once, on
// the service thread, after the service's signer was learned.
void RunPipeServer();

// Connections whose thread has not ended. Any thread may ask.
[[nodiscard]] long LiveConnections() noexcept;

}  // namespace kiosk::pipe
