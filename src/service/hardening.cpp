#include "service/hardening.h"

#include "win32/winapi.h"

namespace kiosk::service {
namespace {

// Newer than the toolchain's headers.
// https://learn.microsoft.com/windows/win32/api/winnt/ns-winnt-process_mitigation_redirection_trust_policy
constexpr auto kRedirectionTrustPolicy = static_cast<PROCESS_MITIGATION_POLICY>(16);
constexpr DWORD kEnforceRedirectionTrust = 1;

void Apply(PROCESS_MITIGATION_POLICY policy, DWORD flags) noexcept {
  SetProcessMitigationPolicy(policy, &flags, sizeof(flags));
}

}  // namespace

void HardenProcess() noexcept {
  SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32);
  SetDllDirectoryW(L"");

  PROCESS_MITIGATION_IMAGE_LOAD_POLICY images{};
  images.NoRemoteImages = 1;
  images.PreferSystem32Images = 1;
  Apply(ProcessImageLoadPolicy, images.Flags);

  PROCESS_MITIGATION_EXTENSION_POINT_DISABLE_POLICY extensions{};
  extensions.DisableExtensionPoints = 1;
  Apply(ProcessExtensionPointDisablePolicy, extensions.Flags);

  Apply(kRedirectionTrustPolicy, kEnforceRedirectionTrust);
}

}  // namespace kiosk::service
