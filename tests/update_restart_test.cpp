// Windows may not restart on its own, and the owner's restart policies come back.
#include "updates/restart_policy.h"

#include "log/log.h"
#include "sim/fault_driver.h"
#include "sim/faults.h"
#include "tests/support/updates.h"

namespace kiosk::updates {
namespace {

using test::kWindowsUpdateKey;
using test::SetDword;
using test::SetString;
using UpdateRestartTest = test::UpdatesTerminal;

const std::wstring kAuKey = std::wstring(kWindowsUpdateKey) + L"\\AU";

// The five policies as type and number, in their order.
std::string Policies() {
  std::string all;
  for (const wchar_t* name : {L"AU\\NoAutoRebootWithLoggedOnUsers", L"SetActiveHours", L"ActiveHoursStart",
                              L"ActiveHoursEnd", L"ActiveHoursMaxRange"}) {
    const bool isAu = name[2] == L'\\';
    state::RawValue value;
    state::ReadValue(isAu ? kAuKey.c_str() : kWindowsUpdateKey, isAu ? name + 3 : name, value);
    all += value.type == REG_NONE ? "- "
           : value.type == REG_DWORD
               ? std::to_string(value.Dword().value_or(99)) + " "
               : std::to_string(value.type) + ":" + win32::ToNarrow(value.Text().value_or(L"?")) + " ";
  }
  return all;
}

void OwnPolicies() {
  SetString(kAuKey.c_str(), L"NoAutoRebootWithLoggedOnUsers", L"0");
  SetDword(kWindowsUpdateKey, L"ActiveHoursStart", 9);
  SetDword(kWindowsUpdateKey, L"ActiveHoursEnd", 2);  // as the service would set it
}
constexpr char kOwn[] = "1:0 - 9 2 - ";
constexpr UpdatesPolicy kEarly{true, 120, 300, 127};

TEST_F(UpdateRestartTest, WindowsMayNotRestartOnItsOwn) {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kWindowsUpdateKey);
  ASSERT_FALSE(test::HasKey(kWindowsUpdateKey));
  ApplyWuRestartPolicy(kEarly);
  EXPECT_EQ(Policies(), "1 1 8 2 18 ");
  {
    const sim::FaultPass pass;
    ApplyWuRestartPolicy(kEarly);
    EXPECT_EQ(pass.Count(), 0);
  }
  EXPECT_EQ(
      test::LogTexts(),
      (std::vector<std::string>{"INFO os updates: Windows may not restart on its own; active hours 08:00-02:00"}));
  ApplyWuRestartPolicy({true, 1320, 120, 127});
  EXPECT_EQ(Policies(), "1 1 4 22 18 ");
  ApplyWuRestartPolicy({true, 0, 1381, 127});
  EXPECT_EQ(Policies(), "1 1 4 22 18 ");
  {
    const sim::FailingReads failing(state::kPriorWuNoAutoReboot.name, ERROR_NO_SYSTEM_RESOURCES);
    RestoreWuRestartPolicy();
    EXPECT_TRUE(test::HasKey(kWindowsUpdateKey)) << "the value whose copy cannot be read";
  }
  RestoreWuRestartPolicy();
  EXPECT_EQ(Policies(), "- - - - - ");
  EXPECT_FALSE(test::HasKey(kWindowsUpdateKey)) << "nobody had it before";
  RestoreWuRestartPolicy();
  EXPECT_EQ(test::CountLogged("INFO os updates: Windows Update restart settings are back as they were"), 1);
  OwnPolicies();
  ApplyWuRestartPolicy(kEarly);
  EXPECT_EQ(state::ReadState(state::kPriorWuNoAutoReboot)->type, DWORD{REG_SZ});
  RestoreWuRestartPolicy();
  EXPECT_EQ(Policies(), kOwn);
  EXPECT_FALSE(state::ReadState(state::kPriorWuNoAutoReboot) || state::ReadState(state::kOwnsWuPolicy));
  // A value that can never be put back is named; below a key of this kind none can be made.
  ApplyWuRestartPolicy(kEarly);
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kWindowsUpdateKey);
  {
    win32::RegistryKey key;
    ASSERT_EQ(RegCreateKeyExW(HKEY_LOCAL_MACHINE, kWindowsUpdateKey, 0, nullptr, REG_OPTION_VOLATILE, KEY_WRITE,
                              nullptr, key.Put(), nullptr),
              ERROR_SUCCESS);
  }
  RestoreWuRestartPolicy();
  EXPECT_EQ(Policies(), "- - 9 2 - ");
  EXPECT_EQ(test::CountLogged("ERROR os updates: cannot put NoAutoRebootWithLoggedOnUsers back; it was \"0\""), 1);
  EXPECT_FALSE(state::ReadState(state::kPriorWuNoAutoReboot) || state::ReadState(state::kOwnsWuPolicy));
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kWindowsUpdateKey);
  SetDword(state::kStateKey, L"TeardownPending", 1);
  ApplyWuRestartPolicy(kEarly);
  EXPECT_EQ(Policies(), "- - - - - ");
}

// Whatever fails and whenever the power goes: the next minute sets everything, and the owner's values come back.
void PrepareOwnersPolicies() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kWindowsUpdateKey);
  test::Enrol("tok", false);
  SetDword(state::kStateKey, L"PriorWuSetActiveHours", 0);  // left over from an earlier time
  OwnPolicies();
  log::Log(log::kNotice, log::kKiosk,
           "prepared");  // the log's folders, if nobody made them yet, are no change of the run
}

void ApplyEarly() { ApplyWuRestartPolicy(kEarly); }
void RestoreAndCompare() {
  RestoreWuRestartPolicy();
  EXPECT_EQ(Policies(), kOwn);
}

TEST(UpdateRestartFaults, WhileWindowsIsKeptFromRestarting) {
  const auto later = [] {
    ApplyEarly();
    EXPECT_EQ(Policies(), "1 1 8 2 18 ");
    RestoreAndCompare();
  };
  sim::RunFaultScenario({.name = L"apply", .prepare = PrepareOwnersPolicies, .run = ApplyEarly, .later = later});
}

TEST(UpdateRestartFaults, WhileThePoliciesAreGivenBack) {
  const auto prepare = [] {
    PrepareOwnersPolicies();
    ApplyEarly();
  };
  sim::RunFaultScenario(
      {.name = L"restore", .prepare = prepare, .run = [] { RestoreWuRestartPolicy(); }, .later = RestoreAndCompare});
}

}  // namespace
}  // namespace kiosk::updates
