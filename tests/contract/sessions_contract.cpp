// Sessions and their users.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"

#include <wtsapi32.h>

namespace contract {
namespace {

void ListsAreTold(Asked& asked) {
  WTS_SESSION_INFOW* sessions = nullptr;
  DWORD count = 0;
  asked.True("WTSEnumerateSessionsW", WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count) != 0);
  const AtEnd free([&] { WTSFreeMemory(sessions); });
  bool services = false;
  for (DWORD i = 0; i < count; ++i) {
    services = services || sessions[i].SessionId == 0;
  }
  asked.KnownWrong(Platform::kWine, "Wine lists no session of services");
  asked.True("the session of services is in it", services);
}

void UnknownSessionsAreErrors(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine tells of any session");
  wchar_t* text = nullptr;
  DWORD size = 0;
  constexpr DWORD kNone = 4711;
  asked.Fails("its user", WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, kNone, WTSUserName, &text, &size) != 0,
              {ERROR_FILE_NOT_FOUND, ERROR_CTX_WINSTATION_NOT_FOUND});
  asked.Fails("signing it out", WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, kNone, FALSE) != 0,
              {ERROR_FILE_NOT_FOUND, ERROR_CTX_WINSTATION_NOT_FOUND});
}

constexpr Case kCases[] = {
    {"list", "the list of sessions has that of services", ListsAreTold},
    {"unknown", "a session that is not there is an error", UnknownSessionsAreErrors},
};

}  // namespace

extern const Group kSessions;
const Group kSessions{"sessions", kCases};

}  // namespace contract
