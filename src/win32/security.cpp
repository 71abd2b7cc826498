#include "win32/security.h"

#include <sddl.h>

namespace kiosk::win32 {

SecurityDescriptor::SecurityDescriptor(const wchar_t* sddl) noexcept {
  PSECURITY_DESCRIPTOR descriptor = nullptr;
  if (ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl, SDDL_REVISION_1, &descriptor, nullptr) != 0) {
    memory_.Reset(descriptor);
  }
}

SECURITY_ATTRIBUTES SecurityDescriptor::Attributes() const noexcept {
  return {sizeof(SECURITY_ATTRIBUTES), memory_.Get(), FALSE};
}

std::wstring SidText(PSID sid) {
  wchar_t* text = nullptr;
  if (ConvertSidToStringSidW(sid, &text) == 0) {
    return {};
  }
  const LocalMemory owner(text);
  return text;
}

LocalMemory ParseSid(const wchar_t* text) noexcept {
  PSID sid = nullptr;
  return LocalMemory(ConvertStringSidToSidW(text, &sid) != 0 ? sid : nullptr);
}

}  // namespace kiosk::win32
