#include "tests/soak/portal.h"

#include "sim/network.h"
#include "sim/seam.h"
#include "tests/soak/world.h"
#include "tests/support/terminal.h"
#include "win32/hash.h"
#include "win32/wide_text.h"

#include <winhttp.h>

#include <iterator>

namespace kiosk::soak {
namespace {

constexpr char kEnrolled[] = R"("status":"enrolled")";
constexpr int kPhotos = 3;

std::string PhotoBytes(int number) { return "the bytes of photo " + std::to_string(number); }
std::string PhotoDigest(int number) { return win32::Sha256Hex(PhotoBytes(number)); }

// Bits of the policy, from `at` on.
std::uint32_t Bits(int at, int count) { return world.policy >> at & ((1U << count) - 1); }

std::string PowerMember() {
  constexpr const char* kMembers[] = {
      "",
      R"(,"power":{"screenOffMinutes":15,"sleepMinutes":0,"schedule":{"enabled":false,"sleepAt":"22:00","wakeAt":"07:00","days":[1]}},"powerSource":"tenant")",
      R"(,"power":{"screenOffMinutes":5,"sleepMinutes":30,"schedule":{"enabled":true,"sleepAt":"21:30","wakeAt":"06:15","days":[0,1,2,3,4,5,6]}},"powerSource":"device")",
      R"(,"power":{"screenOffMinutes":5,"sleepMinutes":999},"powerSource":"device")"};
  return kMembers[Bits(0, 2)];
}

std::string UpdatesMember() {
  constexpr const char* kMembers[] = {
      "",
      R"(,"updates":{"automatic":false,"window":{"start":"02:00","end":"05:00","days":[0,1,2,3,4,5,6]}},"updatesSource":"tenant")",
      R"(,"updates":{"automatic":true,"window":{"start":"08:00","end":"07:00","days":[0,1,2,3,4,5,6]}},"updatesSource":"tenant")",
      R"(,"updates":{"automatic":true,"window":{"start":"02:00","end":"05:00","days":[1,3,5]}},"updatesSource":"device")"};
  return kMembers[Bits(2, 2)];
}

std::string BrandingMember() {
  if (Bits(6, 2) == 0) {
    return "";
  }
  std::string photos;
  for (int i = 1; i < static_cast<int>(Bits(6, 2)); ++i) {
    photos += (photos.empty() ? R"({"sha256":")" : R"(,{"sha256":")") + PhotoDigest(i) + "\"}";
  }
  return R"(,"branding":{"displayName":"Norvane","photos":[)" + photos + R"(]},"tenantId":"4711")";
}

std::string EnrolledBody() {
  std::string body = std::string("{") + kEnrolled + R"(,"name":"Hall )" + std::to_string(Bits(11, 2)) + "\"";
  if (Bits(4, 2) != 0) {
    body += R"(,"signIn":{"microsoft":)" + std::string(Bits(4, 1) != 0 ? "true" : "false") + "}";
  }
  if (const std::string password = ExitPassword(); !password.empty()) {
    body += R"(,"exitPassword":")" + password + "\"";
  }
  return body + PowerMember() + UpdatesMember() + BrandingMember() + "}";
}

// What the outage makes of an answer.
sim::Response Through(sim::Response answer) {
  switch (CutOff() ? kUnreachable : static_cast<Outage>(world.outage)) {
    case kBusy:
      return {.status = 503};
    case kUnreachable:
      answer.sendError = ERROR_WINHTTP_CANNOT_CONNECT;
      break;
    case kSilent:
      answer.headersDelay = INFINITE;
      break;
    case kNonsense:
      return {.body = R"({"status":)"};
    case kSlow:
      answer.headersDelay = 9'000;
      answer.chunkDelay = 2'000;
      break;
    case kCutShort:
      answer.bodyError = ERROR_WINHTTP_CONNECTION_ERROR;
      break;
    case kNone:
    case kUnknown:
    case kOutages:
      break;
  }
  return answer;
}

sim::Response TakeLog(const sim::Request& request) {
  const Hand hand;
  for (const char* mark : {kTokenMark, kPasswordMark}) {
    if (request.body.find(mark) != std::string::npos || request.headers.find(L"Bearer") != std::wstring::npos) {
      Broken("secrets: the log centre is sent one");
    }
  }
  constexpr DWORD kStatus[] = {200, 200, 503, 403, 400, 0};
  const DWORD status = kStatus[world.logOutage % std::size(kStatus)];
  return {.status = status, .sendError = status == 0 || CutOff() ? ERROR_WINHTTP_CANNOT_CONNECT : DWORD{0}};
}

sim::Response CheckIn(const sim::Request& request) {
  const Hand hand;
  ++world.checkIns;
  if (request.body.find(kTokenMark) != std::string::npos || request.body.find(kPasswordMark) != std::string::npos) {
    Broken("secrets: a check-in's body holds one");
  }
  if (world.outage == kUnknown && !CutOff()) {
    return {.status = 401, .body = R"({"status":"unknown"})"};
  }
  const std::string bearer = sim::Narrow(request.headers);
  if (world.valid != 0 && bearer.find("Bearer " + Token(world.valid) + "\r\n") != std::string::npos) {
    return Through({.body = EnrolledBody()});
  }
  return Through({.status = 401, .body = R"({"status":"revoked"})"});
}

sim::Response GiveToken() {
  const Hand hand;
  if (!world.claimed) {
    return Through({.status = 202});
  }
  // Handed out, whether the answer arrives or not.
  if (!CutOff() && (world.outage == kNone || world.outage == kSlow || world.outage == kCutShort)) {
    world.claimed = false;
    world.valid = ++world.issued;
    SaveWorld();
  }
  return Through({.body = R"({"deviceToken":")" + Token(world.valid) + "\"}"});
}

}  // namespace

bool CutOff() {
  const sim::Adapter adapter(sim::kFactoryAdapter);
  return adapter.cable.Get() == 0 || (adapter.dhcp.Get() == 0 && !adapter.addresses.Get().starts_with(L"192.168.7."));
}

std::string Token(std::uint32_t number) { return kTokenMark + std::to_string(number) + "."; }

std::string ExitPassword() {
  return Bits(8, 3) == 0 ? std::string() : kPasswordMark + std::to_string(Bits(8, 3)) + "!";
}

std::size_t BrandingFiles() { return Bits(6, 2); }

void ScriptPortal(sim::ScriptedPortal& portal) {
  portal.On(L"POST", test::kCheckInPath, CheckIn);
  portal.On(L"POST", test::kPairPath, [](const sim::Request&) { return Through(test::kPairingBegins); });
  portal.On(L"GET", test::kClaimPath, [](const sim::Request&) { return GiveToken(); });
  portal.On(L"POST", L"/gelf", TakeLog);
  for (int i = 1; i <= kPhotos; ++i) {
    portal.On(L"GET", L"/api/kiosk/branding/photos/" + win32::ToWide(PhotoDigest(i)),
              [i](const sim::Request&) { return Through({.body = PhotoBytes(i)}); });
  }
}

}  // namespace kiosk::soak
