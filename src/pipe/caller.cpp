#include "pipe/caller.h"

#include "log/log.h"
#include "pipe/service_signer.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/grow.h"
#include "win32/handle.h"
#include "win32/security.h"
#include "win32/wide_text.h"

#include <cstddef>
#include <memory>
#include <vector>

namespace kiosk::pipe {
namespace {

using win32::KernelHandle;

constexpr wchar_t kSystemSid[] = L"S-1-5-18";
constexpr DWORD kUsualTokenSize = 2048;  // what is larger takes one more call

// The refusal for what a look at the caller's program file showed.
std::string RefusalOf(const ImageLook& image) {
  if (image.result == ImageLook::Result::kGone) {
    return "caller image unknown";
  }
  if (image.result == ImageLook::Result::kNotValid) {
    return win32::ToNarrow(image.path) + " is not validly signed";
  }
  return IsServicePublisher(image.publisher)
             ? std::string()
             : win32::ToNarrow(image.path) + " is not signed by this service's publisher";
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
  const std::vector<std::byte> content = TokenInformation(token, TokenGroups);
  if (content.empty()) {
    return false;
  }
  const auto* groups = reinterpret_cast<const TOKEN_GROUPS*>(content.data());
  for (DWORD i = 0; i < groups->GroupCount; ++i) {
    const SID_AND_ATTRIBUTES& group = groups->Groups[i];
    if ((group.Attributes & SE_GROUP_ENABLED) != 0 && IsWellKnownSid(group.Sid, WinInteractiveSid) != 0) {
      return true;
    }
  }
  return false;
}

// 0 when Windows does not tell.
DWORD ClientProcess(HANDLE pipe) noexcept {
  ULONG process = 0;
  return GetNamedPipeClientProcessId(pipe, &process) != 0 ? process : 0;
}

}  // namespace

Client ClientOf(HANDLE pipe) noexcept {
  Client client;
  client.connectedAt = win32::PreciseFileTimeNow();
  client.process = ClientProcess(pipe);
  ULONG session = 0;
  if (GetNamedPipeClientSessionId(pipe, &session) != 0) {
    client.session = session;
  }
  return client;
}

bool BeganBetween(HANDLE process, std::uint64_t from, std::uint64_t to) noexcept {
  FILETIME created;
  FILETIME unused;
  if (GetProcessTimes(process, &created, &unused, &unused, &unused) == 0) {
    return true;
  }
  const std::uint64_t began = win32::FileTimeValue(created);
  return began > from && began <= to;
}

std::string CheckCallerProcess(HANDLE pipe, const Client& client, const Patience& patience) {
  if (client.process == 0) {
    return "caller process unknown";
  }
  switch (SignatureOfService()) {
    case ServiceSignature::kUnknown:
      return "this service's own signature cannot be read";
    case ServiceSignature::kUnsigned:
      return state::FlagIsOn(state::kDevAllowUnsigned) ? ""
                                                       : "this service is unsigned and DevAllowUnsigned is not set";
    case ServiceSignature::kSigned:
      break;
  }
  // Held to the end, so that the number cannot pass on to another process during the check. A process that began after
  // the connection was given the number of the one that connected. One that seems to begin in the future began before
  // the clock was set back, as happens whenever the time is synchronised.
  const auto process =
      std::make_shared<const KernelHandle>(OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, client.process));
  if (!*process || BeganBetween(process->Get(), client.connectedAt, win32::PreciseFileTimeNow())) {
    return "caller process cannot be opened";
  }
  std::string refusal = RefusalOf(LookAtImage(process, client.session.value_or(0), patience));
  if (refusal.empty() && ClientProcess(pipe) != client.process) {
    refusal = "caller process unknown";
  }
  return refusal;
}

std::string IdentifyCaller(HANDLE pipe, const Client& client, CallerRecord& caller) {
  caller = {};
  if (!client.session) {
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
  caller.sessionId = *client.session;
  return {};
}

}  // namespace kiosk::pipe
