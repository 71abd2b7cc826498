#include "account/kiosk_session.h"

#include "win32/wide_text.h"
#include "win32/wts_memory.h"

#include <array>
#include <string>

namespace kiosk::account {
namespace {

std::wstring SessionText(DWORD sessionId, WTS_INFO_CLASS what) {
  wchar_t* text = nullptr;
  DWORD bytes = 0;
  if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, sessionId, what, &text, &bytes) == 0 || text == nullptr) {
    return {};
  }
  const win32::WtsMemory owner(text);
  return text;
}

std::wstring ThisComputer() {
  std::array<wchar_t, 16> name{};
  DWORD size = name.size();
  return GetComputerNameW(name.data(), &size) != 0 ? std::wstring(name.data(), size) : std::wstring();
}

}  // namespace

bool IsKioskSession(DWORD sessionId) {
  const std::wstring computer = ThisComputer();
  return !computer.empty() && win32::EqualIgnoringCase(SessionText(sessionId, WTSUserName), kKioskUser) &&
         win32::EqualIgnoringCase(SessionText(sessionId, WTSDomainName), computer);
}

}  // namespace kiosk::account
