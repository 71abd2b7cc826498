// The one way in which tests make a terminal, what a portal in script answers it, and what is left of it afterwards.
#pragma once

#include "account/winlogon.h"
#include "sim/accounts.h"
#include "sim/clock.h"
#include "sim/http.h"
#include "sim/sessions.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"

#include <set>
#include <string>

namespace kiosk::test {

inline const std::uint64_t kMorning = sim::FileTimeOf(2026, 11, 21, 9);  // when no test says otherwise

inline constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";
inline constexpr wchar_t kCheckInPath[] = L"/api/kiosk/check-in";
inline constexpr wchar_t kPairPath[] = L"/api/kiosk/pair";
inline constexpr wchar_t kClaimPath[] = L"/api/kiosk/pair/ABCD1234";
inline const sim::Response kRevoked{.status = 401, .body = R"({"status":"revoked"})"};
inline const sim::Response kPairingBegins{.body = R"({"pairingCode":"ABCD1234"})"};

inline constexpr wchar_t kAdministrators[] = L"S-1-5-32-544";
inline constexpr DWORD kKioskSession = 2;
inline constexpr DWORD kOtherSession = 3;

// A protected state key with the portal's address, the client's folder, and a token unless that is empty; with
// `provision` the product makes the kiosk account too. Nothing that was there before is forgotten.
void Enrol(const std::string& token = "tok-1", bool provision = true);

// A new terminal in kiosk mode without the time that provisioning takes: enrolled with the token "tok", the kiosk
// account, which signs in by itself, in kKioskSession and an administrator in kOtherSession.
void MakeKioskTerminal();

// An owner's: every setting that kiosk mode touches has a value, of another type than usual where Windows takes that;
// "anna" has an account and a profile, and nobody signs in by itself.
void OwnComputer();

// The kiosk account; without a name when there is none.
inline sim::User Kiosk() { return sim::FindUser(L"NorvaneKiosk").value_or(sim::User()); }
inline std::wstring Winlogon(const wchar_t* name) {
  return state::ReadString(account::kWinlogonKey, name).value_or(L"none");
}

// What a computer must have that counts as provisioned. Left out is what provisioning lets pass when it fails: full
// name, privileged groups, the settings of the first sign-in, fast user switching, the switch itself, unloading the
// hive.
void ExpectProvisioned();

// The names that stand in the state key; none without the key.
std::set<std::wstring> StateNames();

// The things in which the computer differs from a dump, and the values of the state key: each once and without its
// content, in small letters.
std::set<std::string> Differences(const std::string& before);

// A clean computer on virtual time. The portal in script answers every check-in with `answer_`.
class VirtualComputer : public CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    portal_.On(L"POST", kCheckInPath, [this](const sim::Request&) { return answer_; });
  }
  [[nodiscard]] std::size_t CheckIns() const { return portal_.Requests().size(); }

  sim::VirtualClock clock_{kMorning};
  sim::ScriptedPortal portal_;
  sim::Response answer_{.body = R"({"status":"enrolled","name":"Hall"})"};
};

// Enrolled with the token "tok", not provisioned.
class EnrolledTerminal : public VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    Enrol("tok", false);
  }
};

// As MakeKioskTerminal has it; the portal names an exit password.
class KioskTerminal : public VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    MakeKioskTerminal();
    SetExitPassword("\"Way out\"");
  }
  // As JSON.
  void SetExitPassword(const std::string& json) {
    answer_ = {.body = R"({"status":"enrolled","exitPassword":)" + json + "}"};
  }
  static DWORD Failures() {
    const auto stored = state::ReadState(state::kMaintenanceFailures);
    return stored ? stored->Dword().value_or(99) : 0;
  }
};

}  // namespace kiosk::test
