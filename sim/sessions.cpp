#include "sim/sessions.h"

#include "sim/machine.h"
#include "sim/seam.h"

#include <wtsapi32.h>

#include <algorithm>
#include <mutex>
#include <set>

namespace sim {
namespace {

std::mutex mutex;
std::set<void*> buffers;

std::wstring AreaOf(DWORD id) { return L"Sessions\\" + std::to_wstring(id); }

}  // namespace

void SetSession(DWORD id, const std::wstring& user, const std::wstring& domain) {
  WriteText(AreaOf(id), L"User", user);
  WriteText(AreaOf(id), L"Domain", domain);
}

void EndSession(DWORD id) { ForgetArea(AreaOf(id)); }

void SetPipeClientSession(DWORD session, DWORD processId) {
  WriteNumber(L"", processId == 0 ? L"PipeClientSession" : L"PipeClientSession." + std::to_wstring(processId), session);
}

int OpenSessionBuffers() {
  const std::lock_guard guard(mutex);
  return static_cast<int>(buffers.size());
}

}  // namespace sim

using namespace sim;

SIM(WINBOOL, WTSQuerySessionInformationW, HANDLE server, DWORD id, WTS_INFO_CLASS what, LPWSTR* buffer, DWORD* size) {
  if (!AreaExists(L"Sessions")) {
    return ::WTSQuerySessionInformationW(server, id, what, buffer, size);
  }
  if (server != WTS_CURRENT_SERVER_HANDLE || (what != WTSUserName && what != WTSDomainName) || buffer == nullptr ||
      size == nullptr) {
    Violation("WTSQuerySessionInformationW: class %d of a session is not simulated, or a pointer is null", what);
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  if (id == WTS_CURRENT_SESSION) {
    ProcessIdToSessionId(GetCurrentProcessId(), &id);
  }
  const auto text = ReadText(AreaOf(id), what == WTSUserName ? L"User" : L"Domain");
  if (!text) {
    SetLastError(ERROR_CTX_WINSTATION_NOT_FOUND);
    return FALSE;
  }
  *buffer = new wchar_t[text->size() + 1];
  std::copy_n(text->c_str(), text->size() + 1, *buffer);
  *size = static_cast<DWORD>((text->size() + 1) * sizeof(wchar_t));
  const std::lock_guard guard(mutex);
  buffers.insert(*buffer);
  return TRUE;
}

SIM(void, WTSFreeMemory, PVOID memory) {
  {
    const std::lock_guard guard(mutex);
    if (buffers.erase(memory) != 0) {
      delete[] static_cast<wchar_t*>(memory);
      return;
    }
  }
  ::WTSFreeMemory(memory);
}

SIM(WINBOOL, GetNamedPipeClientSessionId, HANDLE pipe, PULONG session) {
  ULONG process = 0;
  auto number = GetNamedPipeClientProcessId(pipe, &process)
                    ? ReadNumber(L"", L"PipeClientSession." + std::to_wstring(process))
                    : std::nullopt;
  number = number ? number : ReadNumber(L"", L"PipeClientSession");
  if (!number) {
    return ::GetNamedPipeClientSessionId(pipe, session);
  }
  *session = *number;
  return TRUE;
}
