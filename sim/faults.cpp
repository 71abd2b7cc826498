#include "sim/faults.h"

#include "sim/machine.h"
#include "sim/threads.h"
#include "sim/time_service.h"

#include <wincrypt.h>

// Of ntdll; the headers leave it out. Class 3 is the name of the key, as a length in bytes and UTF-16.
extern "C" NTSYSAPI LONG NTAPI NtQueryKey(HANDLE key, int informationClass, void* information, ULONG size, ULONG* used);

namespace sim {
namespace {

thread_local FaultPass* armed = nullptr;

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

}  // namespace

bool TouchFaults() { return armed == nullptr; }

FaultPass::FaultPass(FaultKind kind, int at, DWORD error) : kind_(kind), at_(at), error_(error) { armed = this; }

FaultPass::~FaultPass() { armed = nullptr; }

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

bool ChangePoint::Armed() { return armed != nullptr; }

ChangePoint::ChangePoint(const char* function, std::wstring object) {
  armed->calls_.push_back({function, std::move(object)});
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

namespace {

// A numbered registry call.
template <typename Call>
LSTATUS Registry(const char* function, HKEY key, const wchar_t* subkey, const wchar_t* value, Call call) {
  return Change<LSTATUS>(
      function, [&] { return RegistryObject(key, subkey, value); }, call);
}

template <typename Result, typename Call>
Result Named(const char* function, const wchar_t* name, Call call) {
  return Change<Result>(function, name != nullptr ? name : L"", call);
}

}  // namespace

#define COUNT_REGISTRY(function, subkeyText, valueText, arguments, ...)                           \
  SIM(LSTATUS, function, __VA_ARGS__) {                                                           \
    return Registry(#function, key, subkeyText, valueText, [&] { return ::function arguments; }); \
  }
COUNT_REGISTRY(RegCreateKeyExW, subkey, nullptr,
               (key, subkey, reserved, kind, options, access, security, result, disposition), HKEY key, LPCWSTR subkey,
               DWORD reserved, LPWSTR kind, DWORD options, REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result,
               LPDWORD disposition)
COUNT_REGISTRY(RegSetValueExW, nullptr, name, (key, name, reserved, type, data, size), HKEY key, LPCWSTR name,
               DWORD reserved, DWORD type, const BYTE* data, DWORD size)
COUNT_REGISTRY(RegSetKeyValueW, subkey, name, (key, subkey, name, type, data, size), HKEY key, LPCWSTR subkey,
               LPCWSTR name, DWORD type, LPCVOID data, DWORD size)
COUNT_REGISTRY(RegDeleteKeyValueW, subkey, name, (key, subkey, name), HKEY key, LPCWSTR subkey, LPCWSTR name)
COUNT_REGISTRY(RegDeleteTreeW, subkey, nullptr, (key, subkey), HKEY key, LPCWSTR subkey)
COUNT_REGISTRY(RegDeleteKeyExW, subkey, nullptr, (key, subkey, access, reserved), HKEY key, LPCWSTR subkey,
               REGSAM access, DWORD reserved)
COUNT_REGISTRY(RegSetKeySecurity, nullptr, nullptr, (key, parts, descriptor), HKEY key, SECURITY_INFORMATION parts,
               PSECURITY_DESCRIPTOR descriptor)
COUNT_REGISTRY(RegFlushKey, nullptr, nullptr, (key), HKEY key)

SIM(WINBOOL, CryptProtectData, DATA_BLOB* in, LPCWSTR text, DATA_BLOB* entropy, PVOID reserved,
    CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags, DATA_BLOB* out) {
  WriteNumber(L"DataProtection", L"Flags", flags);
  return Named<BOOL>(__func__ + 4, text,
                     [&] { return ::CryptProtectData(in, text, entropy, reserved, prompt, flags, out); });
}

SIM(SC_HANDLE, CreateServiceW, SC_HANDLE manager, LPCWSTR name, LPCWSTR display, DWORD access, DWORD type, DWORD start,
    DWORD severity, LPCWSTR path, LPCWSTR group, LPDWORD tag, LPCWSTR needs, LPCWSTR account, LPCWSTR password) {
  return Named<SC_HANDLE>(__func__ + 4, name, [&] {
    return ::CreateServiceW(manager, name, display, access, type, start, severity, path, group, tag, needs, account,
                            password);
  });
}

SIM(WINBOOL, ChangeServiceConfigW, SC_HANDLE service, DWORD type, DWORD start, DWORD severity, LPCWSTR path,
    LPCWSTR group, LPDWORD tag, LPCWSTR needs, LPCWSTR account, LPCWSTR password, LPCWSTR display) {
  return Named<BOOL>(__func__ + 4, display, [&] {
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
    const auto& failure = *static_cast<const SERVICE_FAILURE_ACTIONSW*>(information);
    std::wstring text = std::to_wstring(failure.dwResetPeriod) + L":";
    for (DWORD i = 0; i < failure.cActions; ++i) {
      text += L" " + std::to_wstring(failure.lpsaActions[i].Type) + L" " +
              std::to_wstring(failure.lpsaActions[i].Delay) + L",";
    }
    WriteText(L"Services", L"FailureActions", text);
  }
  return Named<BOOL>(__func__ + 4, nullptr, [&] { return ::ChangeServiceConfig2W(service, level, information); });
}

SIM(WINBOOL, DeleteService, SC_HANDLE service) {
  return Named<BOOL>("DeleteService", nullptr, [&] { return ::DeleteService(service); });
}

SIM(WINBOOL, StartServiceW, SC_HANDLE service, DWORD count, LPCWSTR* arguments) {
  return Named<BOOL>(__func__ + 4, nullptr, [&] {
    return service == kTimeServiceHandle ? StartTimeService() : ::StartServiceW(service, count, arguments);
  });
}

SIM(WINBOOL, ControlService, SC_HANDLE service, DWORD control, LPSERVICE_STATUS status) {
  return Named<BOOL>(__func__ + 4, nullptr, [&] { return ::ControlService(service, control, status); });
}
