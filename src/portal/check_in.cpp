#include "portal/check_in.h"

#include "enrolment/auth_client.h"
#include "enrolment/enrolment.h"
#include "json/parse.h"
#include "json/serialise.h"
#include "log/log.h"
#include "portal/policies.h"
#include "portal/sign_in_methods.h"
#include "power/power_policy_store.h"
#include "state/kiosk_state.h"
#include "updates/report.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kiosk::portal {
namespace {

// A status text goes into an error that people read; whatever else a server puts there is cut.
constexpr std::size_t kMaxStatusText = 128;

constexpr char kUnexpectedReply[] = "unexpected check-in reply";
constexpr char kHttp[] = "HTTP ";

std::string RequestBody() {
  json::Value body = json::Value::Object();
  body.Set("appVersion", log::kVersion);
  if (power::PowerPolicy local; power::LoadPowerPolicy(state::kPowerLocal, local)) {
    body.Set("powerLocal", power::PowerPolicyToJson(local));
  }
  if (const std::wstring error = state::ReadStateString(state::kPowerError); !error.empty()) {
    body.Set("powerError", win32::ToNarrow(error));
  }
  updates::AddUpdatesReport(body);
  return json::Serialise(body);
}

void ReadRefusal(const enrolment::AuthReply& reply, CheckInResult& result) {
  const std::optional<json::Value> body = json::Parse(reply.body.Get());
  std::string status = body ? json::Member(*body, "status").text() : std::string();
  status.resize(text::CutLength(status, kMaxStatusText));
  if (status.empty()) {
    result.error = "HTTP 401 without a device status";
    return;
  }
  if (status == "revoked") {
    result.deviceStatus = DeviceStatus::kRevoked;
  } else if (status == "unknown") {
    result.deviceStatus = DeviceStatus::kUnknown;
  }
  result.error = "HTTP 401, status " + status;
}

void ApplySignIn(const json::Value& reply) {
  const std::string text = json::Serialise(NormaliseSignIn(json::Member(reply, "signIn")));
  const std::wstring wide = win32::ToWide(text);
  if (wide != state::ReadStateString(state::kSignIn)) {
    state::WriteStateString(state::kSignIn, wide);
    log::Log(log::kNotice, log::kKiosk, "kiosk sign-in methods now %s", text.c_str());
  }
}

void ApplyName(const json::Value& reply) {
  // The registry ends a text at the first NUL, and so does this, or the comparison would differ for ever.
  const std::string& sent = json::Member(reply, "name").text();
  const std::string name(text::TrimSpace(std::string_view(sent).substr(0, sent.find('\0'))));
  const std::wstring wide = win32::ToWide(name);
  if (wide == state::ReadStateString(state::kTerminalName)) {
    return;
  }
  if (wide.empty()) {
    state::DeleteStateValue(state::kTerminalName);
  } else {
    state::WriteStateString(state::kTerminalName, wide);
  }
  log::Log(log::kNotice, log::kKiosk, "terminal name now \"%s\"", name.c_str());
}

void Apply(const json::Value& reply, const std::string& token, CheckInResult& result) {
  // Two check-ins may be on their way at once (a pairing's own and the worker's): each compares and writes as a whole.
  const win32::LockGuard guard(enrolment::ReplyLock());
  if (!enrolment::StillEnrolled(token)) {
    result.error = kNoLongerEnrolled;
    return;
  }
  state::DeleteStateValue(state::kUnknownSince);
  ApplySignIn(reply);
  ApplyName(reply);
  StorePolicies(reply);
  result.exitPassword = text::Secret(json::Member(reply, "exitPassword").text());
  result.branding = json::Member(reply, "branding");
  result.tenantId = json::Member(reply, "tenantId").text();
}

}  // namespace

CheckInResult CheckIn(const std::string& token) {
  CheckInResult result;
  const enrolment::AuthReply reply = enrolment::AuthRequest(L"POST", "/api/kiosk/check-in", RequestBody(), token,
                                                            enrolment::kApiBodyLimit, enrolment::kAcceptJson);
  if (reply.answered == 0) {
    result.error = reply.error;
    return result;
  }
  if (reply.status == 401) {
    ReadRefusal(reply, result);
    return result;
  }
  if (reply.status != 200) {
    result.error = kHttp + std::to_string(reply.status);
    return result;
  }
  std::optional<json::Value> body = json::Parse(reply.body.Get());
  json::Value content = body ? std::move(*body) : json::Value();
  const text::WipeOnExit wipe(content);
  if (json::Member(content, "status").text() != "enrolled") {
    result.error = kUnexpectedReply;
    return result;
  }
  Apply(content, token, result);
  return result;
}

bool IsCheckInError(std::string_view text) {
  constexpr std::string_view kTexts[] = {kUnexpectedReply, kNoLongerEnrolled, "unparseable AuthBaseUrl",
                                         "WinHttpOpen failed", "cannot open the request"};
  constexpr std::string_view kPrefixes[] = {kHttp, "WinHTTP error "};
  return std::find(std::begin(kTexts), std::end(kTexts), text) != std::end(kTexts) ||
         std::any_of(std::begin(kPrefixes), std::end(kPrefixes),
                     [text](std::string_view prefix) { return text.starts_with(prefix); });
}

}  // namespace kiosk::portal
