// Who signed the service itself, which is whom its callers must be signed by.
#pragma once

#include <string_view>

namespace kiosk::pipe {

enum class ServiceSignature {
  kUnknown,   // the service's own file could not be read yet
  kUnsigned,  // a build that nobody signed, or whose signature Windows does not trust
  kSigned,
};

// Starts the one thread that looks at the service's own program file, every 5 s until it could be read, and waits for
// its answer for at most 6 s. Called once at start, before the pipe is served. Logs that the service is not signed, or
// that this cannot be known yet.
void LearnServiceSigner();

// Any thread, at any time. Once known it stays as it is.
[[nodiscard]] ServiceSignature SignatureOfService() noexcept;

// The publisher is the service's own, character by character. False for everybody unless the service is signed.
[[nodiscard]] bool IsServicePublisher(std::wstring_view publisher) noexcept;

}  // namespace kiosk::pipe
