#include "updates/presence.h"

#include "command/reply.h"
#include "enrolment/kiosk_session.h"
#include "log/log.h"
#include "power/stream_session.h"
#include "win32/clock.h"
#include "win32/lock.h"

#include <cstdint>

namespace kiosk::updates {
namespace {

constexpr std::uint64_t kReportCounts = 150'000;  // ms
constexpr char kStreamIsLive[] = "a stream session is live";

// What the kiosk shell said last. Written by connection threads, read by the window thread.
struct Presence {
  bool signedIn = false;
  bool live = false;
  bool reported = false;
  std::uint64_t at = 0;  // tick count
  DWORD sessionId = 0;
};
win32::Lock presenceLock{win32::LockRank::kLeaf};
Presence presence GUARDED_BY(presenceLock);

Presence LastReport() {
  const win32::LockGuard guard(presenceLock);
  return presence;
}

// Asks Windows who is in the session, so no lock is held here.
bool Counts(const Presence& report) {
  return report.reported && win32::TickCount() - report.at <= kReportCounts &&
         enrolment::IsKioskSession(report.sessionId);
}

}  // namespace

json::Value SessionReport(const command::Request& request) {
  const json::Value& signedIn = json::Member(request.members, "signedIn");
  const json::Value& live = json::Member(request.members, "live");
  if (!signedIn.IsBool() || !(live.IsBool() || live.IsNull())) {
    return command::ErrorReply("invalid");
  }
  const win32::LockGuard guard(presenceLock);
  if (signedIn.boolean() != presence.signedIn) {
    log::Log(log::kNotice, log::kKiosk, "a Norvane user is %s at the terminal",
             signedIn.boolean() ? "signed in" : "no longer signed in");
  }
  presence = {signedIn.boolean(), live.boolean(), true, win32::TickCount(), request.session};
  return command::OkReply();
}

std::string DeferralReason() {
  const Presence report = LastReport();
  const bool counts = Counts(report);
  if (power::StreamSessionIsLive() || (counts && report.live)) {
    return kStreamIsLive;
  }
  return counts && report.signedIn ? "a Norvane user is signed in" : "";
}

}  // namespace kiosk::updates
