#include "sim/faults.h"

#include "sim/machine.h"
#include "sim/threads.h"
#include "sim/time_service.h"

#include <wincrypt.h>

#include <mutex>

// Of ntdll; the headers leave it out. Class 3 is the name of the key, as a length in bytes and UTF-16.
extern "C" NTSYSAPI LONG NTAPI NtQueryKey(HANDLE key, int informationClass, void* information, ULONG size, ULONG* used);

namespace sim {
namespace {

thread_local FaultPass* armed = nullptr;
ChangeHook hook = nullptr;

std::mutex readsMutex;  // guards those below: what FailingReads asks for, and whether it has come to pass
std::wstring failingName;
LSTATUS failure = ERROR_SUCCESS;
int sparedLeft = 0;
int failuresLeft = 0;
bool readFailed = false;

[[noreturn]] void EndProcess() {
  TerminateProcess(GetCurrentProcess(), kFaultExitCode);
  Sleep(INFINITE);
  __builtin_unreachable();
}

std::wstring KeyName(HKEY key) {
  if (key == HKEY_LOCAL_MACHINE || key == HKEY_USERS) {
    return key == HKEY_USERS ? L"HKU" : L"HKLM";
  }
  struct {
    ULONG length;
    wchar_t name[1024];
  } information{};
  ULONG used = 0;
  if (NtQueryKey(key, 3, &information, sizeof(information), &used) != 0) {
    return L"?";
  }
  const std::wstring name(information.name, information.length / sizeof(wchar_t));
  constexpr std::wstring_view kMachine = L"\\REGISTRY\\MACHINE";
  return _wcsnicmp(name.c_str(), kMachine.data(), kMachine.size()) == 0 ? L"HKLM" + name.substr(kMachine.size()) : name;
}

// With the mutex held. No name of a value has a backslash.
bool IsToFail(HKEY key, const wchar_t* name) {
  return failingName.find(L'\\') == std::wstring::npos
             ? failingName == name
             : _wcsicmp(KeyName(key).c_str(), (L"HKLM\\" + failingName).c_str()) == 0;
}

}  // namespace

bool TouchFaults() { return armed == nullptr; }

FaultPass::FaultPass(FaultKind kind, int at, DWORD error) : kind_(kind), at_(at), error_(error) { armed = this; }

FaultPass::~FaultPass() {
  armed = nullptr;
  if (!wanted_.empty() && at_ == 0) {
    Violation("the call that was to fail was not made: %s", wanted_.c_str());
  }
}

std::vector<std::string> FaultPass::Texts() const {
  std::vector<std::string> texts;
  for (const ChangeCall& call : calls_) {
    texts.push_back(call.Text());
  }
  return texts;
}

bool FaultPass::Flushed(const std::wstring& valueName) const {
  const std::wstring ending = L"\\" + valueName;
  bool flushed = false;
  std::wstring key;
  for (const ChangeCall& call : calls_) {
    if (call.function == "RegFlushKey") {
      flushed = flushed || _wcsicmp(call.object.c_str(), key.c_str()) == 0;
    } else if (call.function.starts_with("Reg") && call.object.ends_with(ending)) {
      key = call.object.substr(0, call.object.size() - ending.size());
      flushed = false;
    }
  }
  return flushed;
}

void SetChangeHook(ChangeHook newHook) { hook = newHook; }

bool ChangePoint::Armed() { return armed != nullptr || hook != nullptr; }

ChangePoint::ChangePoint(const char* function, std::wstring object) {
  if (armed == nullptr) {
    error_ = hook({function, std::move(object)});
    return;
  }
  armed->calls_.push_back({function, std::move(object)});
  if (armed->at_ == 0 && !armed->wanted_.empty() &&
      armed->calls_.back().Text().find(armed->wanted_) != std::string::npos) {
    armed->at_ = armed->Count();
  }
  if (armed->Count() != armed->at_) {
    return;
  }
  if (armed->kind_ == FaultKind::kEndBefore) {
    EndProcess();
  }
  endAfter_ = armed->kind_ == FaultKind::kEndAfter;
  error_ = armed->kind_ == FaultKind::kFail ? armed->error_ : 0;
}

ChangePoint::~ChangePoint() {
  if (endAfter_) {
    EndProcess();
  }
}

FailingReads::FailingReads(const wchar_t* valueNameOrKey, LSTATUS error, int times, int spared) {
  const std::lock_guard guard(readsMutex);
  failingName = valueNameOrKey;
  failure = error;
  sparedLeft = spared;
  failuresLeft = times;
  readFailed = false;
}

bool FailingReads::Happened() const {
  const std::lock_guard guard(readsMutex);
  return readFailed;
}

FailingReads::~FailingReads() {
  const std::lock_guard guard(readsMutex);
  failuresLeft = 0;
}

std::wstring RegistryObject(HKEY key, const wchar_t* subkey, const wchar_t* value) {
  std::wstring name = KeyName(key);
  for (const wchar_t* part : {subkey, value}) {
    if (part != nullptr && *part != L'\0') {
      name.append(L"\\").append(part);
    }
  }
  return name;
}

}  // namespace sim

using namespace sim;

SIM(LSTATUS, RegQueryValueExW, HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD size) {
  {
    const std::lock_guard guard(readsMutex);
    if (failuresLeft != 0 && name != nullptr && IsToFail(key, name) && sparedLeft-- <= 0) {
      failuresLeft -= failuresLeft > 0 ? 1 : 0;
      readFailed = true;
      return failure;
    }
  }
  return ::RegQueryValueExW(key, name, reserved, type, data, size);
}

// Puts a numbered call about `object` in the place of a function of Windows.
#define COUNT(result, function, object, arguments, ...)                                             \
  SIM(result, function, __VA_ARGS__) {                                                              \
    return Change<result>(                                                                          \
        #function, [&]() -> std::wstring { return object; }, [&] { return ::function arguments; }); \
  }
COUNT(LSTATUS, RegCreateKeyExW, RegistryObject(key, subkey),
      (key, subkey, reserved, kind, options, access, security, result, disposition), HKEY key, LPCWSTR subkey,
      DWORD reserved, LPWSTR kind, DWORD options, REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result,
      LPDWORD disposition)
COUNT(LSTATUS, RegSetValueExW, RegistryObject(key, name), (key, name, reserved, type, data, size), HKEY key,
      LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size)
COUNT(LSTATUS, RegSetKeyValueW, RegistryObject(key, subkey, name), (key, subkey, name, type, data, size), HKEY key,
      LPCWSTR subkey, LPCWSTR name, DWORD type, LPCVOID data, DWORD size)
COUNT(LSTATUS, RegDeleteKeyValueW, RegistryObject(key, subkey, name), (key, subkey, name), HKEY key, LPCWSTR subkey,
      LPCWSTR name)
COUNT(LSTATUS, RegDeleteTreeW, RegistryObject(key, subkey), (key, subkey), HKEY key, LPCWSTR subkey)
COUNT(LSTATUS, RegDeleteKeyExW, RegistryObject(key, subkey), (key, subkey, access, reserved), HKEY key, LPCWSTR subkey,
      REGSAM access, DWORD reserved)
COUNT(LSTATUS, RegSetKeySecurity, RegistryObject(key, nullptr), (key, parts, descriptor), HKEY key,
      SECURITY_INFORMATION parts, PSECURITY_DESCRIPTOR descriptor)
COUNT(LSTATUS, RegFlushKey, RegistryObject(key, nullptr), (key), HKEY key)
COUNT(SC_HANDLE, CreateServiceW, name,
      (manager, name, display, access, type, start, severity, path, group, tag, needs, account, password),
      SC_HANDLE manager, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type, DWORD start, DWORD severity,
      LPCWSTR path, LPCWSTR group, LPDWORD tag, LPCWSTR needs, LPCWSTR account, LPCWSTR password)
COUNT(WINBOOL, DeleteService, L"", (service), SC_HANDLE service)
COUNT(WINBOOL, ControlService, L"", (service, control, status), SC_HANDLE service, DWORD control,
      LPSERVICE_STATUS status)

SIM(WINBOOL, ChangeServiceConfigW, SC_HANDLE service, DWORD type, DWORD start, DWORD severity, LPCWSTR path,
    LPCWSTR group, LPDWORD tag, LPCWSTR needs, LPCWSTR account, LPCWSTR password, LPCWSTR display) {
  return Change<BOOL>(__func__ + 4, display != nullptr ? display : L"", [&] {
    if (service == kTimeServiceHandle) {
      return ConfigureTimeService(start);
    }
    return ::ChangeServiceConfigW(service, type, start, severity, path, group, tag, needs, account, password, display);
  });
}

// The failure actions, which the development machine's service manager drops, are kept as text in the area "Services":
// "<reset seconds>: <action> <ms>, ...".
SIM(WINBOOL, ChangeServiceConfig2W, SC_HANDLE service, DWORD level, LPVOID information) {
  if (level == SERVICE_CONFIG_FAILURE_ACTIONS) {
    const auto& actions = *static_cast<const SERVICE_FAILURE_ACTIONSW*>(information);
    std::wstring text = std::to_wstring(actions.dwResetPeriod) + L":";
    for (DWORD i = 0; i < actions.cActions; ++i) {
      text += L" " + std::to_wstring(actions.lpsaActions[i].Type) + L" " +
              std::to_wstring(actions.lpsaActions[i].Delay) + L",";
    }
    WriteText(L"Services", L"FailureActions", text);
  }
  return Change<BOOL>(__func__ + 4, L"", [&] { return ::ChangeServiceConfig2W(service, level, information); });
}

SIM(WINBOOL, StartServiceW, SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
  return Change<BOOL>(__func__ + 4, L"", [&] {
    return service == kTimeServiceHandle ? StartTimeService() : ::StartServiceW(service, count, arguments);
  });
}
