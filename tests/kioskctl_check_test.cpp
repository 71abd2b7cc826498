// "kioskctl check": everything that it looks at, made wrong once.
#include "power/power_scheme.h"
#include "sim/profiles.h"
#include "state/folders.h"
#include "tests/support/power.h"
#include "tests/support/spool.h"
#include "tests/support/terminal.h"
#include "tools/kioskctl/check.h"
#include "win32/clock.h"
#include "win32/program_path.h"

#include <functional>
#include <map>

namespace kiosk {
namespace {

using state::kStateKey;
using test::SetDword;
using test::SetString;

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\Services\\NorvaneKiosk";
constexpr wchar_t kClientFolder[] = L"C:\\ProgramData\\Norvane\\Client";
const std::wstring kClient = std::wstring(kClientFolder) + L"\\NorvaneTessalyClient.exe";
const std::wstring kSegment = log::shipper::kDrop + L"\\1.gelf";

class KioskCtlCheck : public test::CleanMachine {
 protected:
  ~KioskCtlCheck() override { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey); }

  // A terminal with which nothing is wrong but that no service runs and that nobody serves the portal.
  static void MakeTerminal() {
    test::ResetComputer();
    test::MakeKioskTerminal();
    ASSERT_EQ(sim::MakeProfile(test::Kiosk().sid, L"NorvaneKiosk"), DWORD{ERROR_SUCCESS});
    SetString(kStateKey, L"AuthBaseUrl", L"http://127.0.0.1:9");
    SetDword(kStateKey, L"DevAllowUnsigned", 1);
    SetString(kServiceKey, L"ImagePath", L"\"" + win32::ProgramPath() + L"\"");
    SetString(test::kUpdateKey, L"ClientInstallDir", kClientFolder);
    log::shipper::MakeDropTree();
    CreateDirectoryW(kClientFolder, nullptr);
    test::WriteWholeFile(kClient, "MZ");
    test::WriteWholeFile(kSegment, "{}\n");
  }

  // "ok: ..." or "WRONG: ...", by what was looked at.
  static std::map<std::string, std::string> Findings() {
    std::map<std::string, std::string> found;
    for (const kioskctl::Finding& each : kioskctl::CheckAll()) {
      found[each.what] = (each.good ? "ok: " : "WRONG: ") + each.told;
      EXPECT_EQ(each.good, each.advice.empty()) << each.what;
    }
    return found;
  }
};

void ForgetProfile() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, (std::wstring(sim::kProfileListKey) + L"\\" + test::Kiosk().sid).c_str());
}

void Schedule() { SetString(kStateKey, L"PowerPolicy", win32::ToWide(power::Policy(10, 20, "true"))); }

void AgeSegment() {
  const FILETIME old = win32::ToFileTime(win32::FileTimeNow() - 2ULL * 3'600 * win32::kFileTimeSecond);
  const win32::FileHandle file(
      CreateFileW(kSegment.c_str(), FILE_WRITE_ATTRIBUTES, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  ASSERT_NE(SetFileTime(file.Get(), nullptr, nullptr, &old), 0);
}

TEST_F(KioskCtlCheck, NamesWhatIsWrong) {
  const struct {
    const char* what;
    std::function<void()> make;
    const char* told;  // the beginning
  } cases[] = {
      {"log", [] {}, "ok: C:\\ProgramData\\Norvane\\Tessaly\\Logs"},
      {"log", [] { test::RemoveTree(state::kLogRoot); },
       "WRONG: C:\\ProgramData\\Norvane\\Tessaly\\Logs cannot be opened (error 2)"},
      {"service", [] {}, "WRONG: not installed (error 1060)"},
      {"program", [] {}, "ok: "},
      {"program", [] { SetDword(kStateKey, L"DevAllowUnsigned", 0); }, "WRONG: "},
      {"program", [] { RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey); }, "WRONG: none"},
      {"portal", [] {}, "ok: http://127.0.0.1:9"},
      {"portal", [] { SetString(kStateKey, L"AuthBaseUrl", L"ftp://portal.test"); },
       "WRONG: \"ftp://portal.test\" is no"},
      {"portal name", [] {}, "ok: 127.0.0.1 is 127.0.0.1"},
      {"portal name", [] { SetString(kStateKey, L"AuthBaseUrl", L"http://portal.invalid"); },
       "WRONG: portal.invalid is not found (error "},
      {"portal TCP", [] {}, "WRONG: no connection to port 9 (error 10061)"},
      {"pairing", [] {}, "ok: paired"},
      {"pairing", [] { SetDword(kStateKey, L"TeardownPending", 1); }, "WRONG: kiosk mode is being removed"},
      {"pairing", [] { state::DeleteStateValue(state::kDeviceToken); }, "WRONG: not paired"},
      {"pairing", [] { state::RecordLastError("unreachable"); }, "WRONG: paired; the last error is \"unreachable\""},
      {"client", [] {}, "ok: C:\\ProgramData\\Norvane\\Client\\NorvaneTessalyClient.exe"},
      {"client", [] { DeleteFileW(kClient.c_str()); },
       "WRONG: C:\\ProgramData\\Norvane\\Client\\NorvaneTessalyClient.exe is"},
      {"client", [] { RegDeleteTreeW(HKEY_LOCAL_MACHINE, test::kUpdateKey); }, "WRONG: not installed"},
      {"account", [] {}, "ok: NorvaneKiosk"},
      {"account", [] { sim::RemoveUser(L"NorvaneKiosk"); }, "WRONG: there is no NorvaneKiosk (error 2221)"},
      {"account", [] { SetString(kStateKey, L"AccountSid", L"S-1-5-21-1-2-3-4"); },
       "WRONG: NorvaneKiosk is not the service's"},
      {"account", ForgetProfile, "WRONG: NorvaneKiosk has no profile"},
      {"sign-in", [] {}, "ok: Windows signs NorvaneKiosk in"},
      {"sign-in", [] { SetString(account::kWinlogonKey, L"AutoAdminLogon", L"0"); }, "WRONG: Windows signs nobody in"},
      {"sign-in", [] { SetString(account::kWinlogonKey, L"DefaultUserName", L"anna"); },
       "WRONG: Windows would sign \"anna\" in"},
      {"sign-in", [] { SetDword(kStateKey, L"Maintenance", 1); }, "ok: maintenance"},
      {"tasks", [] {}, "ok: no schedule"},
      {"tasks", Schedule, "WRONG: a task for sleep or wake is missing"},
      {"tasks",
       [] {
         Schedule();
         power::ApplyEffectivePowerPolicy();
       },
       "ok: both tasks"},
      {"log shipping", [] {}, "ok: 0 MB"},
      {"log shipping", AgeSegment, "WRONG: 0 MB wait to be sent, some for more than an hour"},
      {"disk", [] { sim::freeDiskMegabytes.Set(500); }, "ok: 500 MB free"},
      {"disk", [] { sim::freeDiskMegabytes.Set(499); }, "WRONG: 499 MB free"},
  };
  for (const auto& each : cases) {
    MakeTerminal();
    each.make();
    EXPECT_EQ(Findings()[each.what].substr(0, std::string_view(each.told).size()), each.told) << each.what;
  }
}

TEST_F(KioskCtlCheck, LooksForNoAccountWithoutAPairing) {
  MakeTerminal();
  state::DeleteStateValue(state::kDeviceToken);
  for (const char* what : {"account", "sign-in", "tasks"}) {
    EXPECT_EQ(Findings().count(what), 0U) << what;
  }
}

TEST_F(KioskCtlCheck, TellsAPersonALineForEachAndWhatToDo) {
  EXPECT_EQ(
      kioskctl::FindingsText({kioskctl::Good("disk", "7 MB free"), kioskctl::Bad("portal name", "none", "Buy one.")}),
      "ok     disk           7 MB free\n"
      "WRONG  portal name    none\n"
      "                      -> Buy one.\n");
}

}  // namespace
}  // namespace kiosk
