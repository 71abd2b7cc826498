// Authenticode: who signed a program file, and whether Windows trusts the signature.
#pragma once

#include "win32/handle.h"

#include <optional>
#include <string>

namespace kiosk::pipe {

enum class Verdict {
  kUnreadable,  // the file, or what is in its signature, could not be read
  kNotTrusted,  // Windows does not trust it, or there is none
  kTrusted,
};

struct FileSignature {
  Verdict verdict = Verdict::kUnreadable;
  // The publisher of a trusted file: the whole Subject of the certificate that made its first embedded signature, as an
  // X.500 name.
  std::wstring publisher;
};

// Opens a program file for reading so that nobody can write to it, delete or rename it while the handle lives. Invalid
// when it cannot be had that way; the last error says why. May last for as long as somebody holds an opportunistic lock
// on the file.
win32::FileHandle HoldImage(const wchar_t* path) noexcept;

// Asks Windows about the file's embedded signature: no user interface, no revocation checks, no network. `file` is open
// on `path` for reading, and was so before and until the end of the call.
FileSignature ReadSignature(const wchar_t* path, HANDLE file);

// The publisher of a trusted file; an empty optional for any other.
std::optional<std::wstring> TrustedPublisherOfFile(const wchar_t* path, HANDLE file);

}  // namespace kiosk::pipe
