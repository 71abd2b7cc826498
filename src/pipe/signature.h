// Authenticode: who signed a program file, and whether Windows trusts the signature.
#pragma once

#include "win32/handle.h"

#include <optional>
#include <string>
#include <string_view>

namespace kiosk::pipe {

// Opens a program file for reading so that nobody can write to it, delete or rename it while the handle lives. Invalid
// when it cannot be had that way; the last error says why.
win32::FileHandle HoldImage(const wchar_t* path) noexcept;

// The publisher of a program file: the whole Subject of the certificate that made its first embedded signature, as an X.500
// name. Empty optional unless Windows trusts that signature (no user interface, no revocation checks, no network) and the
// Subject can be read. `file` is open on `path` for reading, and was so before and until the end of the call.
std::optional<std::wstring> TrustedPublisherOfFile(const wchar_t* path, HANDLE file);

// Looks at the service's own program file. Called once at start, before the pipe is served: from then on the answers of
// the two functions below stay as they are.
void LearnServiceSigner();

// The service's own file is validly signed and its publisher has a name.
[[nodiscard]] bool ServiceIsSigned() noexcept;

// The publisher is the service's own, character by character. False for everybody when the service is not signed.
[[nodiscard]] bool IsServicePublisher(std::wstring_view publisher) noexcept;

}  // namespace kiosk::pipe
