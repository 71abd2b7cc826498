#include "enrolment/kiosk_session.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/computer_name.h"
#include "win32/owners.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <optional>
#include <string>
#include <vector>

namespace kiosk::enrolment {
namespace {

constexpr DWORD kSignOutWait = 15'000;
constexpr DWORD kSignOutPoll = 250;

// Empty when Windows does not tell; one in which nobody is signed in has an empty text.
std::optional<std::wstring> ReadSessionText(DWORD sessionId, WTS_INFO_CLASS what) {
  wchar_t* text = nullptr;
  DWORD bytes = 0;
  if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, sessionId, what, &text, &bytes) == 0 || text == nullptr) {
    return std::nullopt;
  }
  const win32::WtsMemory owner(text);
  return text;
}

std::wstring SessionText(DWORD sessionId, WTS_INFO_CLASS what) {
  return ReadSessionText(sessionId, what).value_or(L"");
}

// The sessions, those of the services and of listeners aside, that `isWanted` picks. Empty optional, with the last
// error, when Windows lists none: while the computer starts, for instance, its session service may not answer yet.
template <typename Predicate>
std::optional<std::vector<DWORD>> Sessions(Predicate isWanted) {
  WTS_SESSION_INFOW* sessions = nullptr;
  DWORD count = 0;
  if (WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count) == 0) {
    return std::nullopt;
  }
  const win32::WtsMemory owner(sessions);
  std::vector<DWORD> ids;
  for (DWORD i = 0; i < count; ++i) {
    if (sessions[i].SessionId != 0 && sessions[i].State != WTSListen && isWanted(sessions[i].SessionId)) {
      ids.push_back(sessions[i].SessionId);
    }
  }
  return ids;
}

std::optional<std::vector<DWORD>> KioskSessions() { return Sessions(IsKioskSession); }

}  // namespace

bool IsKioskSession(DWORD sessionId) {
  const std::wstring computer = win32::ComputerName();
  return !computer.empty() && win32::EqualIgnoringCase(SessionText(sessionId, WTSUserName), kKioskUser) &&
         win32::EqualIgnoringCase(SessionText(sessionId, WTSDomainName), computer);
}

std::optional<std::vector<DWORD>> OtherUsersSessions() {
  return Sessions([](DWORD id) { return !SessionText(id, WTSUserName).empty() && !IsKioskSession(id); });
}

bool NobodyIsSignedIn() {
  const auto taken = Sessions([](DWORD id) { return ReadSessionText(id, WTSUserName) != L""; });
  return taken && taken->empty();
}

std::optional<bool> KioskIsSignedIn() {
  const auto sessions = KioskSessions();
  return sessions ? std::optional(!sessions->empty()) : std::nullopt;
}

bool LogOffKioskSessions(bool wait) {
  const auto sessions = KioskSessions();
  if (!sessions) {
    log::Log(log::kError, log::kKiosk, "cannot list the sessions of this computer (%lu)", GetLastError());
  }
  bool gone = sessions.has_value();
  for (const DWORD id : sessions.value_or(std::vector<DWORD>())) {
    if (WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, id, FALSE) != 0) {
      log::Log(log::kNotice, log::kKiosk, "logged off kiosk session %lu", id);
    } else {
      log::Log(log::kError, log::kKiosk, "cannot log off kiosk session %lu (%lu)", id, GetLastError());
      gone = false;
    }
  }
  const win32::Deadline deadline(kSignOutWait);
  while (wait && !(gone = KioskIsSignedIn() == false) && !deadline.Passed() &&
         win32::WaitOrStop(nullptr, kSignOutPoll) != win32::WaitResult::kStop) {
  }
  return gone;
}

}  // namespace kiosk::enrolment
