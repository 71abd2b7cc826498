#include "portal/pairing.h"

#include "account/account_lock.h"
#include "account/kiosk_restart.h"
#include "account/provisioning.h"
#include "command/reply.h"
#include "enrolment/auth_client.h"
#include "enrolment/device_token.h"
#include "enrolment/enrolment.h"
#include "enrolment/pairing_code.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "log/event_log.h"
#include "log/log.h"
#include "portal/check_in.h"
#include "portal/revocation.h"
#include "state/kiosk_state.h"
#include "state/os_version.h"
#include "win32/computer_name.h"
#include "win32/wide_text.h"
#include "win32/worker_wake.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <optional>

namespace kiosk::portal {
namespace {

constexpr double kDefaultLifetime = 900;  // seconds
constexpr std::size_t kCodeLength = 8;
constexpr std::size_t kLongestToken = 4096;

std::string HostName() {
  std::array<wchar_t, 256> name{};
  DWORD size = name.size();
  const bool known = GetComputerNameExW(ComputerNameDnsHostname, name.data(), &size) != 0;
  return win32::ToNarrow(known ? std::wstring(name.data(), size) : win32::ComputerName());
}

std::string RequestBody() {
  json::Value body = json::Value::Object();
  body.Set("hostname", HostName());
  body.Set("platform", "Windows");
  body.Set("osVersion", state::OsVersionText());
  body.Set("appVersion", log::kVersion);
  body.Set("screenCount", GetSystemMetrics(SM_CMONITORS));
  return json::Serialise(body);
}

// Whole seconds, whatever shape the portal gave them in.
double Lifetime(const json::Value& value) {
  double seconds = kDefaultLifetime;
  if (value.IsNumber()) {
    seconds = value.number();
  } else if (value.IsBool()) {
    seconds = value.boolean() ? 1 : 0;
  } else if (value.IsString()) {
    const std::string_view text = text::TrimSpace(value.text());
    double read = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), read);
    seconds = problem == std::errc() && end == text.data() + text.size() ? read : kDefaultLifetime;
  }
  return std::isfinite(seconds) ? std::trunc(seconds) : kDefaultLifetime;
}

bool IsAnswerableCode(std::string_view code) {
  return code.size() == kCodeLength && std::all_of(code.begin(), code.end(), [](char c) {
           return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
         });
}

// What can stand in a header after "Bearer ". Anything else would be stored and never work.
bool IsToken(std::string_view token) {
  return !token.empty() && token.size() <= kLongestToken &&
         std::all_of(token.begin(), token.end(), [](char c) { return c > 0x20 && c < 0x7F; });
}

json::Value StillWaiting(bool unreachable) {
  json::Value reply = command::OkReply();
  reply.Set("paired", false);
  if (unreachable) {
    reply.Set("error", "unreachable");
  }
  return reply;
}

bool Store(const text::Secret& token) {
  const win32::LockGuard guard(account::AccountLock());
  return enrolment::StoreDeviceToken(token.Get());
}

// A teardown may have come at any moment since; under its lock there is no doubt, and it cancels what is scheduled.
bool RestartIfStillEnrolled(const std::string& token) {
  const win32::LockGuard guard(account::AccountLock());
  const bool enrolled = enrolment::StillEnrolled(token);
  if (enrolled) {
    account::ScheduleKioskRestart();
  }
  return enrolled;
}

// What becomes of the terminal that holds a fresh token, after its first check-in. The caller holds no lock.
json::Value Enrolled(const text::Secret& token, const CheckInResult& checkIn) {
  if (HandleDeviceStatus(checkIn, token.Get()) || !enrolment::StillEnrolled(token.Get())) {
    return command::ErrorReply("revoked");
  }
  json::Value reply = command::OkReply();
  reply.Set("paired", true);
  if (checkIn.deviceStatus == DeviceStatus::kUnknown) {
    reply.Set("provisioned", false);
    reply.Set("error", "unreachable");
    return reply;
  }
  const std::string problem = account::ProvisionKioskAccount(token.Get());
  if (!problem.empty()) {
    return command::ErrorReply(enrolment::StillEnrolled(token.Get()) ? problem : "revoked");
  }
  if (!RestartIfStillEnrolled(token.Get())) {
    return command::ErrorReply("revoked");
  }
  reply.Set("provisioned", true);
  reply.Set("restarting", true);
  reply.Set("restartInSeconds", account::kRestartDelaySeconds);
  return reply;
}

// Takes the token out of the portal's answer and stores it; returns the error code, empty on success.
std::string Claim(const enrolment::AuthReply& answer, text::Secret& token) REQUIRES(enrolment::PairingLock()) {
  std::optional<json::Value> body = json::Parse(answer.body.Get());
  enrolment::SetPendingPairingCode({});
  token = text::Secret(body ? json::Member(*body, "deviceToken").text() : std::string());
  if (body) {
    body->Wipe();
  }
  if (!IsToken(token.Get())) {
    return "server_error";
  }
  if (!Store(token)) {
    return "token_store_failed";
  }
  log::Log(log::kNotice, log::kKiosk, "paired: device token held");
  log::WriteEvent(ENTRY_PAIRED);
  win32::WakeWorker();
  return {};
}

}  // namespace

json::Value PairBegin(const command::Request& /*request*/) {
  if (state::TokenIsStored()) {
    return command::ErrorReply("already_enrolled");
  }
  const enrolment::AuthReply answer = enrolment::AuthRequest(L"POST", "/api/kiosk/pair", RequestBody(), {},
                                                             enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  if (answer.answered == 0) {
    log::Log(log::kWarn, log::kKiosk, "pairing: AuthSystem unreachable (%s)", answer.error.c_str());
    return command::ErrorReply("unreachable");
  }
  if (answer.status != 200 && answer.status != 201) {
    log::Log(log::kWarn, log::kKiosk, "pairing: HTTP %d", static_cast<int>(answer.status));
    return command::ErrorReply("server_error");
  }
  const std::optional<json::Value> body = json::Parse(answer.body.Get());
  const std::string code = body ? json::AsString(json::Member(*body, "pairingCode")) : std::string();
  if (code.empty()) {
    return command::ErrorReply("server_error");
  }
  {
    const win32::LockGuard guard(enrolment::PairingLock());
    // Another connection may have completed a pairing while this one waited for its code.
    if (state::TokenIsStored()) {
      return command::ErrorReply("already_enrolled");
    }
    enrolment::SetPendingPairingCode(code);
  }
  state::RecordLastError({});
  log::Log(log::kNotice, log::kKiosk, "pairing started");
  json::Value reply = command::OkReply();
  reply.Set("code", code);
  reply.Set("expiresInSeconds", Lifetime(json::Member(*body, "expiresInSeconds")));
  return reply;
}

json::Value PairCheck(const command::Request& request) {
  const std::string code(text::TrimSpace(json::Member(request.members, "code").text()));
  // Of many that wait here during a stop, none begins a request: the client itself sees to that.
  win32::LockGuard guard(enrolment::PairingLock());
  if (!IsAnswerableCode(code) || enrolment::PendingPairingCode() != code) {
    return command::ErrorReply("unknown_code");
  }
  if (state::TokenIsStored()) {
    return command::ErrorReply("already_enrolled");
  }
  const enrolment::AuthReply answer = enrolment::AuthRequest(L"GET", "/api/kiosk/pair/" + code, {}, {},
                                                             enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  if (answer.answered == 0 || answer.status >= 500) {
    return StillWaiting(true);
  }
  switch (answer.status) {
    case 202:
      return StillWaiting(false);
    case 404:
    case 410:
      enrolment::SetPendingPairingCode({});
      return command::ErrorReply("expired");
    case 409:
      enrolment::SetPendingPairingCode({});
      return command::ErrorReply("claimed");
    case 200:
      break;
    default:
      return command::ErrorReply("server_error");
  }
  text::Secret token;
  if (const std::string problem = Claim(answer, token); !problem.empty()) {
    return command::ErrorReply(problem);
  }
  const CheckInResult checkIn = CheckIn(token.Get());
  guard.Unlock();
  return Enrolled(token, checkIn);
}

}  // namespace kiosk::portal
