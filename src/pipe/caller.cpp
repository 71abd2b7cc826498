#include "pipe/caller.h"

#include "log/log.h"
#include "pipe/signature.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/grow.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <array>
#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace kiosk::pipe {
namespace {

using win32::KernelHandle;

constexpr wchar_t kSystemSid[] = L"S-1-5-18";
constexpr std::size_t kImagePathSize = 520;
constexpr DWORD kUsualTokenSize = 2048;  // what is larger takes one more call

// The process at the other end by its number: 0 when Windows does not tell.
ULONG ClientProcess(HANDLE pipe) noexcept {
  ULONG id = 0;
  return GetNamedPipeClientProcessId(pipe, &id) != 0 ? id : 0;
}

// Empty when the process has no image any more.
std::wstring ImagePath(HANDLE process) {
  std::array<wchar_t, kImagePathSize> path{};
  DWORD size = path.size();
  return QueryFullProcessImageNameW(process, 0, path.data(), &size) != 0 ? std::wstring(path.data(), size)
                                                                         : std::wstring();
}

// The image is held against writing, deleting and renaming until both of its signature reads are over, and it must
// still be the image of that process once it is held.
std::string CheckImage(HANDLE process) {
  const std::wstring path = ImagePath(process);
  if (path.empty()) {
    return "caller image unknown";
  }
  const win32::FileHandle image = HoldImage(path.c_str());
  if (image && ImagePath(process) != path) {
    return "caller image unknown";
  }
  const std::optional<std::wstring> publisher =
      image ? TrustedPublisherOfFile(path.c_str(), image.Get()) : std::nullopt;
  if (!publisher) {
    return win32::ToNarrow(path) + " is not validly signed";
  }
  if (!IsServicePublisher(*publisher)) {
    return win32::ToNarrow(path) + " is not signed by this service's publisher";
  }
  return {};
}

// The client's identity on this thread for a scope. The service never goes on under it.
class Impersonation {
 public:
  explicit Impersonation(HANDLE pipe) noexcept
      : error_(ImpersonateNamedPipeClient(pipe) != 0 ? ERROR_SUCCESS : GetLastError()) {}
  Impersonation(const Impersonation&) = delete;
  Impersonation& operator=(const Impersonation&) = delete;
  ~Impersonation() {
    if (error_ == ERROR_SUCCESS && RevertToSelf() == 0) {
      log::Log(log::kError, log::kKiosk, "RevertToSelf failed (%lu); stopping rather than run as the caller",
               GetLastError());
      log::EndProcess(1);
    }
  }

  [[nodiscard]] DWORD Error() const noexcept { return error_; }

 private:
  DWORD error_;
};

// The client's token, or the refusal.
std::string OpenCallerToken(HANDLE pipe, KernelHandle& token) {
  DWORD tokenError = ERROR_SUCCESS;
  {
    const Impersonation impersonation(pipe);
    if (impersonation.Error() != ERROR_SUCCESS) {
      return "caller cannot be identified (" + std::to_string(impersonation.Error()) + ")";
    }
    if (OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Put()) == 0) {
      tokenError = GetLastError();
    }
  }
  if (tokenError != ERROR_SUCCESS) {
    return "caller token cannot be read (" + std::to_string(tokenError) + ")";
  }
  return {};
}

// Empty when Windows does not tell.
std::vector<std::byte> TokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what) {
  std::vector<std::byte> content;
  const auto ask = [token, what](std::byte* buffer, DWORD* size) -> DWORD {
    return GetTokenInformation(token, what, buffer, *size, size) != 0 ? ERROR_SUCCESS : GetLastError();
  };
  static_cast<void>(win32::CallGrowing(content, ask, kUsualTokenSize));
  return content;
}

bool HoldsInteractiveGroup(HANDLE token) {
  std::array<std::byte, SECURITY_MAX_SID_SIZE> interactive{};
  DWORD size = interactive.size();
  const std::vector<std::byte> content = TokenInformation(token, TokenGroups);
  if (content.empty() || CreateWellKnownSid(WinInteractiveSid, nullptr, interactive.data(), &size) == 0) {
    return false;
  }
  const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(content.data());
  for (DWORD i = 0; i < groups->GroupCount; ++i) {
    const SID_AND_ATTRIBUTES& group = groups->Groups[i];
    if ((group.Attributes & SE_GROUP_ENABLED) != 0 && EqualSid(group.Sid, interactive.data()) != 0) {
      return true;
    }
  }
  return false;
}

}  // namespace

bool BeganBetween(HANDLE process, std::uint64_t from, std::uint64_t to) noexcept {
  FILETIME created;
  FILETIME unused;
  if (GetProcessTimes(process, &created, &unused, &unused, &unused) == 0) {
    return true;
  }
  const std::uint64_t began = win32::FileTimeValue(created);
  return began > from && began <= to;
}

std::string CheckCallerProcess(HANDLE pipe, std::uint64_t connectedAt) {
  const ULONG processId = ClientProcess(pipe);
  if (processId == 0) {
    return "caller process unknown";
  }
  if (!ServiceIsSigned()) {
    return state::FlagIsOn(state::kDevAllowUnsigned) ? "" : "this service is unsigned and DevAllowUnsigned is not set";
  }
  // Held to the end, so that the number cannot pass on to another process during the check. A process that began after
  // the connection was given the number of the one that connected. One that seems to begin in the future began before
  // the clock was set back, as happens whenever the time is synchronised.
  const KernelHandle process(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, processId));
  if (!process || BeganBetween(process.Get(), connectedAt, win32::PreciseFileTimeNow())) {
    return "caller process cannot be opened";
  }
  std::string refusal = CheckImage(process.Get());
  if (refusal.empty() && ClientProcess(pipe) != processId) {
    refusal = "caller process unknown";
  }
  return refusal;
}

std::string IdentifyCaller(HANDLE pipe, CallerRecord& caller) {
  caller = {};
  ULONG sessionId = 0;
  if (GetNamedPipeClientSessionId(pipe, &sessionId) == 0) {
    return "caller session unknown";
  }
  KernelHandle token;
  std::string refusal = OpenCallerToken(pipe, token);
  if (!refusal.empty()) {
    return refusal;
  }
  const std::vector<std::byte> user = TokenInformation(token.Get(), TokenUser);
  if (user.empty()) {
    return "caller user unknown";
  }
  const std::wstring sid = win32::SidText(reinterpret_cast<const TOKEN_USER*>(user.data())->User.Sid);
  const std::wstring kioskSid = state::ReadStateString(state::kAccountSid);
  caller.isSystem = sid == kSystemSid;
  caller.isInteractive = HoldsInteractiveGroup(token.Get());
  caller.isKioskAccount = !kioskSid.empty() && win32::EqualIgnoringCase(sid, kioskSid);
  caller.sessionId = sessionId;
  return {};
}

}  // namespace kiosk::pipe
