#include "power/power_commands.h"

#include "command/reply.h"
#include "enrolment/enrolment.h"
#include "log/log.h"
#include "power/power_policy_store.h"
#include "power/power_scheme.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

#include <string>

namespace kiosk::power {
namespace {

constexpr char kNotEnrolled[] = "not_enrolled";
constexpr char kInvalid[] = "invalid";

// Each of these returns the error code, empty on success.

std::string ClearOverride() {
  {
    const win32::LockGuard guard(PowerLock());
    if (!enrolment::IsEnrolled()) {
      return kNotEnrolled;
    }
    // Before the override is deleted: until then it is in force, so what is cut short here is begun anew.
    if (PowerPolicy portals; !LoadPowerPolicy(state::kPowerPolicy, portals)) {
      UndoPowerPolicy();
    }
    if (state::SetStateStringIfChanged(state::kPowerLocal, {})) {
      log::Log(log::kNotice, log::kKiosk, "power: the local override is cleared; following the portal");
    }
  }
  ApplyEffectivePowerPolicy();
  return {};
}

// Takes what the request says over into `policy`. Both minutes must be there; without "schedule" the schedule stays.
std::string Change(const json::Value& request, PowerPolicy& policy) {
  if (!ParseMinutes(json::Member(request, "screenOffMinutes"), policy.screenOffMinutes) ||
      !ParseMinutes(json::Member(request, "sleepMinutes"), policy.sleepMinutes)) {
    log::Log(log::kWarn, log::kKiosk, "power.set refused: minutes must be whole numbers from 0 to %d", kMostMinutes);
    return kInvalid;
  }
  const json::Value& schedule = json::Member(request, "schedule");
  if (!schedule.IsNull() && !ParsePowerSchedule(schedule, policy.schedule)) {
    log::Log(log::kWarn, log::kKiosk, "power.set refused: invalid schedule");
    return kInvalid;
  }
  return {};
}

// One lock from reading the policy in force to applying the new one: otherwise two requests at once would undo each
// other's schedule.
std::string Override(const json::Value& request) {
  const win32::LockGuard guard(PowerLock());
  if (!enrolment::IsEnrolled()) {
    return kNotEnrolled;
  }
  PowerPolicy policy;
  LoadEffectivePowerPolicy(policy);
  if (std::string error = Change(request, policy); !error.empty()) {
    return error;
  }
  const std::string text = PowerPolicyText(policy);
  if (state::SetStateStringIfChanged(state::kPowerLocal, win32::ToWide(text))) {
    log::Log(log::kNotice, log::kKiosk, "power: local override %s", text.c_str());
  }
  ApplyPowerScheme(policy);
  return {};
}

std::string Set(const json::Value& request) {
  if (!enrolment::IsEnrolled()) {
    return kNotEnrolled;
  }
  const json::Value& useOrganisation = json::Member(request, "useOrganisation");
  if (!useOrganisation.IsNull() && !useOrganisation.IsBool()) {
    return kInvalid;
  }
  if (useOrganisation.boolean()) {
    return ClearOverride();
  }
  const json::Value& local = json::Member(request, "local");
  if (!local.IsNull() && !local.boolean()) {
    return kInvalid;
  }
  return Override(request);
}

}  // namespace

json::Value PowerGet(const command::Request& /*request*/) {
  PowerPolicy policy;
  PowerPolicy local;
  const bool hasPolicy = LoadPowerPolicy(state::kPowerPolicy, policy);
  const bool hasLocal = LoadPowerPolicy(state::kPowerLocal, local);
  const std::string source = win32::ToNarrow(state::ReadStateString(state::kPowerSource));
  const std::string error = win32::ToNarrow(state::ReadStateString(state::kPowerError));
  json::Value reply = command::OkReply();
  reply.Set("policy", PowerPolicyToJson(policy));
  reply.Set("source", hasPolicy && !source.empty() ? source : "default");
  reply.Set("local", hasLocal ? PowerPolicyToJson(local) : json::Value());
  reply.Set("effective", PowerPolicyToJson(hasLocal ? local : policy));
  reply.Set("error", error.empty() ? json::Value() : json::Value(error));
  return reply;
}

json::Value PowerSet(const command::Request& request) {
  const std::string error = Set(request.members);
  return error.empty() ? PowerGet(request) : command::ErrorReply(error);
}

}  // namespace kiosk::power
