// Security descriptors and SIDs.
#pragma once

#include "win32/handle.h"

#include <string>

namespace kiosk::win32 {

// A self-relative security descriptor made from SDDL text. Invalid when Windows refuses the text; the last error says
// why.
class SecurityDescriptor {
 public:
  explicit SecurityDescriptor(const wchar_t* sddl) noexcept;

  explicit operator bool() const noexcept { return static_cast<bool>(memory_); }
  [[nodiscard]] PSECURITY_DESCRIPTOR Get() const noexcept { return memory_.Get(); }

  // Security attributes that carry the descriptor and are not inherited by child processes. They point into this
  // object.
  [[nodiscard]] SECURITY_ATTRIBUTES Attributes() const noexcept;

 private:
  LocalMemory memory_;
};

// The text form ("S-1-5-18") of a SID; empty when it cannot be converted.
std::wstring SidText(PSID sid);

// The SID of a text form; invalid when the text is none, and the last error says why.
LocalMemory ParseSid(const wchar_t* text) noexcept;

}  // namespace kiosk::win32
