// The life of a terminal: installed, paired, a kiosk, in maintenance, revoked, paired once more, uninstalled. Each step
// asks for what docs/operations.md promises.
#include "tools/proof/life.h"

#include "account/winlogon.h"
#include "service/install.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tests/contract/hand.h"
#include "tools/proof/computer.h"
#include "tools/proof/hand.h"
#include "tools/proof/journal.h"
#include "tools/proof/product.h"
#include "tools/proof/run.h"
#include "tools/proof/services.h"
#include "tools/proof/snapshot.h"
#include "win32/security.h"
#include "win32/wide_text.h"

namespace proof {
namespace {

using contract::Asked;
using contract::Platform;
using kiosk::json::Member;
using kiosk::json::Value;
using kiosk::win32::ServiceHandle;
using kiosk::win32::ToWide;

constexpr wchar_t kUpdateKey[] = L"SOFTWARE\\Norvane\\Tessaly\\Update";
constexpr char kWrongPassword[] = "Close Sesame";
constexpr DWORD kSignIn = 120'000;        // ms from the start of Windows
constexpr DWORD kQuickStop = 5'000;       // ms
constexpr DWORD kStopUnderWine = 20'000;  // it cannot end a wait for headers from outside

Portal& ThePortal() { return TheRun().ThePortal(); }

bool Is(const char* member) {
  const Value status = AwaitStatus();
  if (!status.IsObject()) {
    Asked::CannotRun("the service does not answer");
  }
  return Member(status, member).boolean();
}

void NeedRestarts() {
  if (!TheRun().Options().restarts) {
    Asked::CannotRun("the kiosk has no session: Windows may not restart");
  }
}

// As somebody may have left it, who then reads and writes what the product will keep there.
void OpenToEverybody(const wchar_t* path) {
  kiosk::win32::RegistryKey key;
  const kiosk::win32::SecurityDescriptor everybody(L"D:(A;CI;KA;;;WD)");
  Asked::Needs(RegOpenKeyExW(HKEY_LOCAL_MACHINE, path, 0, WRITE_DAC, key.Put()) == ERROR_SUCCESS &&
                   RegSetKeySecurity(key.Get(), DACL_SECURITY_INFORMATION, everybody.Get()) == ERROR_SUCCESS,
               "a key that everybody may write");
}

// Kiosk mode takes automatic sign-in over: the owner's is put aside until the end. Before the product is noted, since
// an uninstall gives back what the product found.
void PutSignInAside() {
  Asked::Needs(NoteSecret(L"DefaultPassword"), "the secret of automatic sign-in");
  const wchar_t* const name = kiosk::account::kAutoAdminLogon;
  if (kiosk::state::ReadString(kiosk::account::kWinlogonKey, name) == std::optional<std::wstring>(L"1")) {
    Asked::Needs(TheRun().SetNote("signInAside", true) && SetValue(kiosk::account::kWinlogonKey, name, REG_SZ, L"0"),
                 "automatic sign-in");
  }
}

void Install(Asked& asked) {
  for (const wchar_t* const folder :
       {kiosk::state::kMakerFolder, kiosk::state::kProductFolder, kiosk::state::kLogRoot, kiosk::state::kKioskFolder}) {
    Asked::Needs(NoteFolder(folder), "the journal");
  }
  PutSignInAside();
  const std::wstring url = L"http://127.0.0.1:" + std::to_wstring(ThePortal().Port());
  Asked::Needs(SetValue(kiosk::state::kStateKey, kiosk::state::kAuthBaseUrl.name, REG_SZ, url) &&
                   SetValue(kiosk::state::kStateKey, kiosk::state::kDevAllowUnsigned.name, 1) &&
                   NoteProduct(ProductProgram()),
               "the address of the portal");
  OpenToEverybody(kiosk::state::kStateKey);
  asked.Same("without the service manager it ends with", RunProduct(L"").exitCode, 1);
  const Ran ran = RunProduct(L"--install");
  asked.Same("--install ends with", ran.exitCode, 0);
  asked.True("it says \"NorvaneKiosk installed\"", ran.output.find("NorvaneKiosk installed") != std::string::npos);
  asked.True("the service answers within a minute", AwaitStatus().IsObject());
}

void Configuration(Asked& asked) {
  const ServiceHandle service = OpenExisting(kiosk::service::kServiceName, SERVICE_QUERY_CONFIG);
  alignas(QUERY_SERVICE_CONFIGW) BYTE room[8192]{};
  DWORD needed = 0;
  auto* const config = reinterpret_cast<QUERY_SERVICE_CONFIGW*>(room);
  Asked::Needs(service && QueryServiceConfigW(service.Get(), config, sizeof(room), &needed) != 0, "its configuration");
  asked.Same("when it starts", config->dwStartType, SERVICE_AUTO_START);
  asked.Same("its kind", config->dwServiceType, SERVICE_WIN32_OWN_PROCESS);
  const auto text = [](const wchar_t* each) { return std::wstring(each != nullptr ? each : L""); };
  asked.Same("its account", text(config->lpServiceStartName), L"LocalSystem");
  asked.Same("its program", text(config->lpBinaryPathName), L"\"" + ProductProgram() + L"\"");
  asked.Same("its name", text(config->lpDisplayName), L"Norvane (Tessaly) Kiosk");
  asked.Same("what becomes of an error", config->dwErrorControl, SERVICE_ERROR_NORMAL);
  alignas(SERVICE_DESCRIPTIONW) BYTE more[2048]{};
  asked.True(
      "it is described",
      QueryServiceConfig2W(service.Get(), SERVICE_CONFIG_DESCRIPTION, more, sizeof(more), &needed) != 0 &&
          text(reinterpret_cast<SERVICE_DESCRIPTIONW*>(more)->lpDescription).starts_with(L"Enrols this computer"));
}

void FailureActions(Asked& asked) {
  if (contract::ThisPlatform() != Platform::kWindows) {
    Asked::CannotRun("Wine's service manager keeps no failure actions");
  }
  const ServiceHandle service = OpenExisting(kiosk::service::kServiceName, SERVICE_QUERY_CONFIG);
  alignas(SERVICE_FAILURE_ACTIONSW) BYTE room[1024]{};
  DWORD needed = 0;
  auto* const failure = reinterpret_cast<SERVICE_FAILURE_ACTIONSW*>(room);
  Asked::Needs(
      service && QueryServiceConfig2W(service.Get(), SERVICE_CONFIG_FAILURE_ACTIONS, room, sizeof(room), &needed) != 0,
      "its failure actions");
  asked.Same("forgotten after", failure->dwResetPeriod, 86'400);
  asked.Same("how many", failure->cActions, 3);
  for (DWORD i = 0; i < failure->cActions && i < 3; ++i) {
    constexpr DWORD kDelays[] = {10'000, 30'000, 60'000};
    asked.True("it is started anew", failure->lpsaActions[i].Type == SC_ACTION_RESTART);
    asked.Same("after", failure->lpsaActions[i].Delay, kDelays[i]);
  }
}

void NotPaired(Asked& asked) {
  const Value status = AskProduct("status");
  asked.True("status is answered", Member(status, "ok").boolean());
  asked.True("not enrolled", !Member(status, "enrolled").boolean());
  asked.True("not provisioned", !Member(status, "provisioned").boolean());
  asked.Same("its error", Error(status), L"");
}

// Where Windows may not restart the client is missing at first: only a pairing that sets the kiosk up at once restarts.
void Pair(Asked& asked) {
  const bool restarts = TheRun().Options().restarts;
  Asked::Needs(SetValue(kUpdateKey, L"ClientInstallDir", REG_SZ, restarts ? kClientFolder : L""),
               "the client's folder");
  const Value begun = AskProduct("pair.begin");
  asked.Same("pair.begin", Error(begun), L"");
  const std::string code = Member(begun, "code").text();
  TheRun().TheReport().Conceal(code);
  Value check = Request("pair.check");
  check.Set("code", code);
  const Value waiting = AskProduct(check);
  asked.True("before the code is entered it is not paired",
             Member(waiting, "ok").boolean() && !Member(waiting, "paired").boolean());
  ThePortal().Change([](Portal::State& state) { state.claimed = true; });
  const Value paired = AskProduct(check);
  Asked::Needs(TheRun().SetNote("tokenDigest", ThePortal().Look().tokenDigest), "the notes of the run");
  asked.Same("pair.check, the code entered", Error(paired),
             restarts ? (contract::ThisPlatform() == Platform::kWine ? Error(paired) : L"") : L"no_client");
  asked.True("it is enrolled", Is("enrolled"));
  asked.True("the portal sees a check-in", ThePortal().Look().checkIns > 0);
}

void RestartIntoKiosk(Asked& asked) {
  NeedAccount();
  asked.True("Windows restarts", hand::Restart(true));
}

void Provision(Asked& asked) {
  NeedPaired();
  asked.KnownWrong(Platform::kWine, "Wine makes no accounts");
  if (!TheRun().Options().restarts) {
    Asked::Needs(SetValue(kUpdateKey, L"ClientInstallDir", REG_SZ, kClientFolder), "the client's folder");
    asked.True("the service starts anew", RestartProduct());
  }
  const DWORD patience = contract::ThisPlatform() == Platform::kWine ? 0 : kSoon;
  asked.True("the kiosk account is set up", Within(patience, [] { return Is("provisioned"); }));
}

void SignedIn(Asked& asked) {
  NeedRestarts();
  NeedAccount();
  asked.True("the kiosk has a session", Within(kSignIn, [] { return KioskSession() != 0; }));
}

void CheckIn(Asked& asked) {
  NeedPaired();
  asked.True("the terminal has its name",
             Within(kOneCheckIn, [] { return Member(AskProduct("status"), "terminalName").text() == kName; }));
}

void Stop(Asked& asked) {
  NeedPaired();
  const DWORD most = contract::ThisPlatform() == Platform::kWindows ? kQuickStop : kStopUnderWine;
  const contract::AtEnd answers([] { ThePortal().SetMode(Portal::Mode::kAnswers); });
  for (const Portal::Mode mode : {Portal::Mode::kHangs, Portal::Mode::kDribbles, Portal::Mode::kCuts}) {
    ThePortal().SetMode(mode);
    const int seen = ThePortal().Look().requests;
    asked.True("the service starts anew", RestartProduct());
    asked.True("it asks the portal", Within(kOneCheckIn, [&] { return ThePortal().Look().requests > seen; }));
    asked.True("and stops in time", StopProduct() <= most);
    ThePortal().SetMode(Portal::Mode::kAnswers);
    const int good = ThePortal().Look().checkIns;
    asked.True("it starts again", StartProduct());
    asked.True("and checks in", Within(kOneCheckIn, [&] { return ThePortal().Look().checkIns > good; }));
  }
}

// Whether the kiosk, in its session, gets what the exit password is asked for.
bool Takes(const char* command, const std::string& password) {
  Value request = Request(command);
  request.Set("password", password);
  const std::optional<bool> taken = hand::AskAsKiosk(request);
  if (!taken) {
    Asked::CannotRun("the kiosk has no session in which it could ask");
  }
  return *taken;
}

void Maintenance(Asked& asked) {
  NeedRestarts();
  NeedAccount();
  asked.True("a wrong password is refused", !Takes("maintenance", kWrongPassword));
  asked.True("the right one is taken", Takes("maintenance", kExitPassword));
  asked.True("the kiosk is signed out", Within(kSoon, [] { return KioskSession() == 0; }));
  asked.Same("automatic sign-in",
             kiosk::state::ReadString(kiosk::account::kWinlogonKey, kiosk::account::kAutoAdminLogon).value_or(L""),
             L"0");
}

void RestartFromMaintenance(Asked& asked) {
  NeedAccount();
  asked.True("Windows restarts", hand::Restart(false));
}

void BackFromMaintenance(Asked& asked) {
  SignedIn(asked);
  asked.True("maintenance is over", Within(kSoon, [] { return !Is("maintenance"); }));
  CheckAutomaticSignIn(asked);
}

void Unlock(Asked& asked) {
  NeedRestarts();
  NeedAccount();
  asked.True("a wrong password is refused", !Takes("unlock", kWrongPassword));
  asked.True("the right one is taken", Takes("unlock", kExitPassword));
  const std::size_t logged = ProductLog().size();
  for (int wrong = 1; wrong <= 5; ++wrong) {
    asked.True("a wrong password is refused", !Takes("unlock", kWrongPassword));
  }
  asked.True("the log says for how long", ProductLog().find("refusing for 300 s", logged) != std::string::npos);
  asked.True("the right one is refused as well", !Takes("unlock", kExitPassword));
}

void Revoked(Asked& asked) {
  NeedPaired();
  ThePortal().Change([](Portal::State& state) { state.revoked = true; });
  // It hears of it at its next check-in, of which one comes with a start.
  if (TheRun().Options().quick) {
    asked.True("the service starts anew", RestartProduct());
  }
  asked.True("it is not enrolled any more", Within(kOneCheckIn, [] { return !Is("enrolled"); }));
  asked.True("the account is gone", Within(kSoon, [] {
               return kiosk::state::ReadStateString(kiosk::state::kAccountSid).empty() &&
                      Beginning("user NorvaneKiosk ").empty();
             }));
  asked.Same("its session", KioskSession(), 0);
}

// But for the product's own keys and its service, which stay until it is uninstalled, the owner's automatic sign-in,
// which comes back at the end, and the kit's own user.
void AsBefore(Asked& asked) {
  const std::vector<std::string> before = TheRun().Before();
  Asked::Needs(!before.empty(), "the snapshot from before");
  std::vector<std::string> differences = Differences(before, Snapshot());
  const std::string person = kiosk::win32::ToNarrow(contract::SidOfUser(hand::kPerson));
  std::erase_if(differences, [&, aside = TheRun().Note("signInAside").boolean()](const std::string& line) {
    return line.find("SOFTWARE\\Norvane") != std::string::npos || line == "+ service NorvaneKiosk" ||
           line == "- secret DefaultPassword" || (aside && line.find("\\AutoAdminLogon = ") != std::string::npos) ||
           (!person.empty() && line.find(" " + person) != std::string::npos);
  });
  asked.Same("what differs", ToWide(Joined(differences)), L"");
}

void Uninstall(Asked& asked) {
  const Ran ran = RunProduct(L"--uninstall");
  asked.Same("--uninstall ends with", ran.exitCode, 0);
  asked.True("it says \"NorvaneKiosk removed\"", ran.output.find("NorvaneKiosk removed") != std::string::npos);
  asked.Fails("its service", static_cast<bool>(OpenExisting(kiosk::service::kServiceName, SERVICE_QUERY_STATUS)),
              {ERROR_SERVICE_DOES_NOT_EXIST});
  kiosk::win32::RegistryKey state;
  asked.Same(
      "its state key",
      static_cast<std::uint64_t>(RegOpenKeyExW(HKEY_LOCAL_MACHINE, kiosk::state::kStateKey, 0, KEY_READ, state.Put())),
      ERROR_FILE_NOT_FOUND);
}

constexpr Step kFirst[] = {
    {{"life/install", "--install makes the service, which answers", Install}},
    {{"life/configuration", "the service starts by itself, as LocalSystem, from a quoted path", Configuration}},
    {{"life/failure actions", "a service that crashes is started anew", FailureActions}},
    {{"life/status", "the terminal is not paired", NotPaired}},
    {{"life/pair", "a code that a person enters makes the terminal the portal's", Pair}},
    {{"life/restart", "Windows restarts by itself after a pairing", RestartIntoKiosk}, Step::kRestarts},
    {{"life/provision", "the kiosk account is set up", Provision}},
    {{"life/session", "Windows signs the kiosk in by itself", SignedIn}},
    {{"life/check-in", "a check-in takes over what the portal says", CheckIn}},
};
constexpr Step kLater[] = {
    {{"life/configured again", "to install it over itself puts the configuration right", Configuration}},
    {{"life/stop", "the service stops in time, whatever the portal does", Stop}},
    {{"life/maintenance", "the exit password makes room for an administrator", Maintenance}},
    {{"life/restart from maintenance", "Windows restarts", RestartFromMaintenance}, Step::kRestarts},
    {{"life/back", "after that the kiosk is back", BackFromMaintenance}},
    {{"life/unlock", "five wrong passwords shut the settings for five minutes", Unlock}},
    {{"life/revoked", "a terminal that the portal removes leaves kiosk mode", Revoked}},
    {{"life/as before", "and the computer is its owner's again, as it was", AsBefore}},
    {{"life/pair again", "it can be paired once more", Pair}},
    {{"life/second restart", "Windows restarts by itself after a pairing", RestartIntoKiosk}, Step::kRestarts},
    {{"life/provision again", "the kiosk account is set up", Provision}},
    {{"life/uninstall", "--uninstall ends kiosk mode and removes the service with its state", Uninstall}},
    {{"life/as before again", "and the computer is as it was", AsBefore}},
};

}  // namespace

const std::span<const Step> kFirstSteps{kFirst};
const std::span<const Step> kLaterSteps{kLater};

// Each step finds what those before it left.
const std::vector<Step>& Steps() {
  static const auto* const all = [] {
    auto* const steps = new std::vector<Step>;
    for (const std::span<const Step>& part :
         {kPlantedSteps, kFirstSteps, kKioskSteps, kProtectionSteps, kSignatureSteps, kLaterSteps}) {
      steps->insert(steps->end(), part.begin(), part.end());
    }
    return steps;
  }();
  return *all;
}

}  // namespace proof
