// Power schemes, requests, and the restart.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <powrprof.h>

namespace contract {
namespace {

using kiosk::win32::KernelHandle;
using kiosk::win32::LocalMemory;

// Display off after so long, in seconds.
constexpr GUID kVideo{0x7516B95F, 0xF776, 0x4464, {0x8C, 0x53, 0x06, 0x16, 0x7F, 0x40, 0xCC, 0x99}};
constexpr GUID kVideoIdle{0x3C0BC021, 0xC8A8, 0x4E07, {0xA9, 0x73, 0x6B, 0x14, 0xCB, 0xCB, 0x2B, 0x7E}};
constexpr GUID kNothing{0x4E6F7276, 0x616E, 0x6550, {0x72, 0x6F, 0x6F, 0x66, 0, 0, 0, 1}};

GUID ActiveScheme() {
  GUID* raw = nullptr;
  const DWORD error = PowerGetActiveScheme(nullptr, &raw);
  SetLastError(error);
  Asked::Needs(error == ERROR_SUCCESS, "the active power scheme");
  const LocalMemory owned(raw);
  return *raw;
}

void SchemesAreActive(Asked& asked) {
  const GUID scheme = ActiveScheme();
  asked.Same("making it active once more", PowerSetActiveScheme(nullptr, &scheme), ERROR_SUCCESS);
  asked.True("it still is", IsEqualGUID(ActiveScheme(), scheme));
  asked.OneOf("one that is not there", PowerSetActiveScheme(nullptr, &kNothing),
              {ERROR_FILE_NOT_FOUND, ERROR_INVALID_PARAMETER});
}

void ValuesComeBack(Asked& asked) {
  const GUID scheme = ActiveScheme();
  DWORD before = 0;
  asked.Same("PowerReadACValueIndex", PowerReadACValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, &before),
             ERROR_SUCCESS);
  const AtEnd back([&] { PowerWriteACValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, before); });
  asked.Same("PowerWriteACValueIndex", PowerWriteACValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, before + 60),
             ERROR_SUCCESS);
  DWORD after = 0;
  asked.Same("reading it", PowerReadACValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, &after), ERROR_SUCCESS);
  asked.Same("the value", after, before + 60);
  DWORD battery = 0;
  asked.Same("PowerReadDCValueIndex", PowerReadDCValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, &battery),
             ERROR_SUCCESS);
  asked.Same("PowerWriteDCValueIndex", PowerWriteDCValueIndex(nullptr, &scheme, &kVideo, &kVideoIdle, battery),
             ERROR_SUCCESS);
}

void RequestsAreHeld(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "Wine has no power requests");
  wchar_t reason[] = L"NorvaneProof";
  REASON_CONTEXT context{};
  context.Version = POWER_REQUEST_CONTEXT_VERSION;
  context.Flags = POWER_REQUEST_CONTEXT_SIMPLE_STRING;
  context.Reason.SimpleReasonString = reason;
  HANDLE raw = PowerCreateRequest(&context);
  asked.True("PowerCreateRequest", raw != INVALID_HANDLE_VALUE);
  const KernelHandle request(raw != INVALID_HANDLE_VALUE ? raw : nullptr);
  asked.True("PowerSetRequest", request && PowerSetRequest(request.Get(), PowerRequestSystemRequired) != 0);
}

void CapabilitiesAreTold(Asked& asked) {
  SYSTEM_POWER_CAPABILITIES capabilities{};
  asked.True("GetPwrCapabilities", GetPwrCapabilities(&capabilities) != 0);
}

// Without the privilege nothing of this happens.
void RestartsWantAPrivilege(Asked& asked) {
  KernelHandle token;
  OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put());
  AdjustTokenPrivileges(token.Get(), TRUE, nullptr, 0, nullptr, nullptr);
  if (ThisPlatform() == Platform::kWine) {
    Asked::CannotRun("Wine asks for no privilege: it would end");
  }
  asked.Fails("InitiateSystemShutdownExW",
              InitiateSystemShutdownExW(nullptr, nullptr, 3600, FALSE, TRUE, SHTDN_REASON_FLAG_PLANNED) != 0,
              {ERROR_ACCESS_DENIED});
  asked.Fails("SetSuspendState", SetSuspendState(FALSE, FALSE, FALSE) != 0,
              {ERROR_PRIVILEGE_NOT_HELD, ERROR_ACCESS_DENIED});
}

constexpr Case kCases[] = {
    {"scheme", "the active scheme can be made active once more, and no other that is not there", SchemesAreActive},
    {"values", "a value of a scheme reads as it was written", ValuesComeBack},
    {"request", "a power request is made and set", RequestsAreHeld},
    {"capabilities", "the computer tells what it can do", CapabilitiesAreTold},
    {"privilege", "restart and sleep want a privilege", RestartsWantAPrivilege},
};

}  // namespace

extern const Group kPower;
const Group kPower{"power", kCases};

}  // namespace contract
