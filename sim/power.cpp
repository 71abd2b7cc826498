#include "sim/power.h"

#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/shutdown.h"

#include <objbase.h>
#include <powrprof.h>

#include <algorithm>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Power";
constexpr wchar_t kSchemes[] = L"Power\\Schemes";

// A power request of this process. It is an event with a name, which exists for as long as the handle: closing that is
// the end of the request, as PowerCreateRequest's page has it.
struct Request {
  HANDLE handle;
  std::wstring name;
  bool set;
  DWORD sleeps;  // how often the computer had gone to sleep when it was set
};
SRWLOCK requestsGuard = SRWLOCK_INIT;
std::vector<Request> requests;

template <typename Action>
auto WithRequests(Action action) {
  ::AcquireSRWLockExclusive(&requestsGuard);
  const auto result = action();
  ::ReleaseSRWLockExclusive(&requestsGuard);
  return result;
}

bool Exists(const Request& request) {
  HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, request.name.c_str());
  return event != nullptr && CloseHandle(event);
}

// Windows' names of subgroup and setting.
struct Setting {
  const wchar_t* subgroup;
  const wchar_t* id;
};
constexpr Setting kSettings[] = {
    {L"{7516B95F-F776-4464-8C53-06167F40CC99}", L"{3C0BC021-C8A8-4E07-A973-6B14CBCB2B7E}"},
    {L"{238C9FA8-0AAD-41ED-83F4-97BE242C8F20}", L"{29F6C1DB-86DA-48C5-9FDB-F2B67B1F44DA}"},
    {L"{238C9FA8-0AAD-41ED-83F4-97BE242C8F20}", L"{BD3B718A-0680-4D9D-8AB2-E1D2B4AC806D}"},
};

std::wstring SchemeArea(const std::wstring& scheme) {
  return scheme.empty() ? L"Power\\InForce" : std::wstring(kSchemes) + L"\\" + scheme;
}

// Of the six indexes in their order.
std::wstring ValueName(std::size_t place) {
  return kSettings[place / 2].id + std::wstring(place % 2 == 0 ? L" AC" : L" DC");
}

void MakeSchemes() {
  if (!ReadText(kArea, L"ActiveScheme")) {
    WriteText(kArea, L"ActiveScheme", kBalanced);
    SetSchemeIndexes(kBalanced, {600, 300, 1800, 900, 2, 0});
    SetSchemeIndexes(kHighPerformance, {900, 600, 0, 0, 1, 1});
    MakeSchemeActive(kBalanced);
  }
}

std::wstring GuidText(const GUID* id) {
  wchar_t text[40] = L"";
  if (id != nullptr) {
    StringFromGUID2(*id, text, 40);
  }
  return text;
}

// The value that the identifiers name; empty, after a violation, for no setting of a scheme.
std::wstring Identify(const char* function, HKEY root, const GUID* subgroup, const GUID* setting, bool mains) {
  MakeSchemes();
  for (std::size_t i = 0; i < std::size(kSettings); ++i) {
    if (root == nullptr && GuidText(subgroup) == kSettings[i].subgroup && GuidText(setting) == kSettings[i].id) {
      return ValueName(2 * i + (mains ? 0 : 1));
    }
  }
  Violation("%s: a root key, or no setting: %s", function, Narrow(GuidText(subgroup) + GuidText(setting)).c_str());
  return {};
}

DWORD ReadIndex(const GUID* scheme, const std::wstring& name, DWORD* index) {
  if (const DWORD error = power.readError.Get(); error != 0) {
    return error;
  }
  const auto stored = ReadNumber(SchemeArea(GuidText(scheme)), name);
  *index = stored.value_or(0xDEAD);
  return stored ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

DWORD WriteIndex(const char* function, const GUID* scheme, const std::wstring& name, DWORD index) {
  const std::wstring area = SchemeArea(GuidText(scheme));
  return Change<DWORD>(function, area + L"\\" + name, [&]() -> DWORD {
    if (!AreaExists(area)) {
      return ERROR_FILE_NOT_FOUND;
    }
    WriteNumber(area, name, index);
    return ERROR_SUCCESS;
  });
}

}  // namespace

Indexes SchemeIndexes(const std::wstring& scheme) {
  MakeSchemes();
  Indexes indexes;
  for (std::size_t place = 0; place < 2 * std::size(kSettings); ++place) {
    indexes.push_back(ReadNumber(SchemeArea(scheme), ValueName(place)).value_or(kNoIndex));
  }
  return indexes;
}

void SetSchemeIndexes(const std::wstring& scheme, const Indexes& indexes) {
  MakeSchemes();
  ForgetArea(SchemeArea(scheme));
  for (std::size_t place = 0; place < indexes.size(); ++place) {
    if (indexes[place] != kNoIndex) {
      WriteNumber(SchemeArea(scheme), ValueName(place), indexes[place]);
    }
  }
}

void MakeSchemeActive(const std::wstring& scheme) {
  MakeSchemes();
  WriteText(kArea, L"ActiveScheme", scheme);
  if (!scheme.empty()) {
    SetSchemeIndexes({}, SchemeIndexes(scheme));
  }
}

bool SystemIsRequired() {
  return WithRequests([] {
    std::erase_if(requests, [](const Request& request) { return !Exists(request); });
    return std::any_of(requests.begin(), requests.end(),
                       [](const Request& request) { return request.set && request.sleeps == power.suspends.Get(); });
  });
}

bool SleepAgainUnattended() {
  const bool sleeps = !SystemIsRequired();
  if (sleeps) {
    power.suspends.Increment();
  }
  return sleeps;
}

std::vector<std::string> PowerLines() {
  MakeSchemes();
  std::vector<std::string> lines{"scheme " + Narrow(ReadText(kArea, L"ActiveScheme").value_or(L""))};
  std::vector<std::wstring> schemes = AreaNames(kSchemes);
  schemes.emplace_back();
  for (const std::wstring& scheme : schemes) {
    std::string line = "scheme values " + Narrow(scheme) + " =";
    for (const DWORD index : SchemeIndexes(scheme)) {
      line += " " + std::to_string(index);
    }
    lines.push_back(line);
  }
  return lines;
}

}  // namespace sim

using namespace sim;

SIM(DWORD, PowerGetActiveScheme, HKEY root, GUID** scheme) {
  MakeSchemes();
  const std::wstring active = ReadText(kArea, L"ActiveScheme").value_or(L"");
  if (root != nullptr || scheme == nullptr) {
    Violation("PowerGetActiveScheme: a root key, or no place for the answer");
    return ERROR_INVALID_PARAMETER;
  }
  if (active.empty()) {
    return ERROR_FILE_NOT_FOUND;
  }
  *scheme = static_cast<GUID*>(LocalAlloc(LMEM_FIXED, sizeof(GUID)));  // the caller frees it
  return *scheme != nullptr && SUCCEEDED(CLSIDFromString(active.c_str(), *scheme)) ? ERROR_SUCCESS : ERROR_INVALID_DATA;
}

SIM(DWORD, PowerSetActiveScheme, HKEY root, const GUID* scheme) {
  MakeSchemes();
  std::wstring name = GuidText(scheme);
  return Change<DWORD>("PowerSetActiveScheme", name, [&]() -> DWORD {
    if (root != nullptr || !AreaExists(SchemeArea(name))) {
      return ERROR_FILE_NOT_FOUND;
    }
    MakeSchemeActive(name);
    return ERROR_SUCCESS;
  });
}

#define INDEX(name, index_type, mains, call)                                                                     \
  SIM(DWORD, name, HKEY root, const GUID* scheme, const GUID* subgroup, const GUID* setting, index_type index) { \
    const std::wstring value = Identify(#name, root, subgroup, setting, mains);                                  \
    return call;                                                                                                 \
  }
INDEX(PowerReadACValueIndex, LPDWORD, true, ReadIndex(scheme, value, index))
INDEX(PowerReadDCValueIndex, LPDWORD, false, ReadIndex(scheme, value, index))
INDEX(PowerWriteACValueIndex, DWORD, true, WriteIndex("PowerWriteACValueIndex", scheme, value, index))
INDEX(PowerWriteDCValueIndex, DWORD, false, WriteIndex("PowerWriteDCValueIndex", scheme, value, index))

SIM(BOOLEAN, GetPwrCapabilities, PSYSTEM_POWER_CAPABILITIES capabilities) {
  *capabilities = {};
  reinterpret_cast<BYTE*>(capabilities)[20] = static_cast<BYTE>(power.alwaysConnected.Get());
  capabilities->RtcWake = static_cast<SYSTEM_POWER_STATE>(power.rtcWake.Get());
  return power.capabilitiesUnknown.Get() == 0;
}

SIM(BOOLEAN, SetSuspendState, BOOLEAN hibernate, BOOLEAN force, BOOLEAN wakeUpEventsDisabled) {
  return Change<BOOL>("SetSuspendState", L"", [&]() -> BOOL {
           if (hibernate || force || wakeUpEventsDisabled) {
             Violation("SetSuspendState: the computer would not sleep in a way from which a timer wakes it");
           }
           const DWORD error = PrivilegeEnabled(SE_SHUTDOWN_NAME) ? power.suspendError.Get() : ERROR_PRIVILEGE_NOT_HELD;
           if (error != ERROR_SUCCESS) {
             SetLastError(error);
             return FALSE;
           }
           power.suspends.Increment();
           return TRUE;
         }) != FALSE;
}

SIM(EXECUTION_STATE, SetThreadExecutionState, EXECUTION_STATE flags) {
  power.executionState.Set(flags);
  return ES_CONTINUOUS;
}

SIM(HANDLE, PowerCreateRequest, PREASON_CONTEXT context) {
  if (context->Version != POWER_REQUEST_CONTEXT_VERSION || context->Flags != POWER_REQUEST_CONTEXT_SIMPLE_STRING ||
      *context->Reason.SimpleReasonString == L'\0') {
    Violation("PowerCreateRequest: the context has no reason in words");
  }
  if (const DWORD error = power.requestError.Get(); error != 0) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
  }
  return WithRequests([]() -> HANDLE {
    static DWORD count = 0;
    const std::wstring name =
        L"SimulatedRequest " + std::to_wstring(GetCurrentProcessId()) + L" " + std::to_wstring(++count);
    HANDLE handle = CreateEventW(nullptr, TRUE, FALSE, name.c_str());
    requests.push_back({handle, name, false, 0});
    return handle;
  });
}

// A service may not use PowerRequestExecutionRequired (PowerClearRequest's page), and has no display to ask for.
SIM(WINBOOL, PowerSetRequest, HANDLE handle, POWER_REQUEST_TYPE type) {
  return WithRequests([&]() -> WINBOOL {
    const auto request = std::find_if(requests.begin(), requests.end(),
                                      [&](const Request& each) { return each.handle == handle && Exists(each); });
    if (request == requests.end() || type != PowerRequestSystemRequired) {
      Violation("PowerSetRequest: no request, or of type %d", type);
      SetLastError(ERROR_INVALID_PARAMETER);
      return FALSE;
    }
    request->set = true;
    request->sleeps = power.suspends.Get();
    return TRUE;
  });
}
