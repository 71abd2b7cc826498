#include "lockdown/kiosk_policies.h"

#include "sim/faults.h"
#include "sim/profiles.h"
#include "tests/support/terminal.h"
#include "win32/handle.h"
#include "win32/hash.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <array>

namespace kiosk::lockdown {
namespace {

constexpr wchar_t kTemporary[] = L"NorvaneKioskProvision";
const std::wstring kClient = L"C:\\Program Files\\Zażółć gęślą";

// Of the lines of Collect, sorted, each with its newline.
constexpr std::size_t kValues = 52;
constexpr char kDigest[] = "a6dae1d7318b1896c9cd89bb710f8bc944b9dd93805c1de15aac763da3635a10";

std::string Line(const std::wstring& path, const wchar_t* name, const state::RawValue& value) {
  const std::string begin = win32::ToNarrow(path) + "|" + win32::ToNarrow(name) + "|";
  if (value.type == REG_DWORD) {
    return begin + "dword|" + std::to_string(value.Dword().value_or(0));
  }
  const std::wstring text = value.Text().value_or(L"?");
  EXPECT_EQ(value.bytes.size(), state::StringBytes(text)) << begin;
  return begin + (value.type == REG_SZ ? "sz|" : "other|") + win32::ToNarrow(text);
}

// Every value with a name below HKEY_USERS\<hive>.
void Collect(const std::wstring& hive, const std::wstring& path, std::vector<std::string>& lines) {
  win32::RegistryKey key;
  if (RegOpenKeyExW(HKEY_USERS, (hive + path).c_str(), 0, KEY_READ, key.Put()) != ERROR_SUCCESS) {
    return;
  }
  std::array<wchar_t, 256> name{};
  DWORD size = name.size();
  for (DWORD i = 0; RegEnumValueW(key.Get(), i, name.data(), &size, nullptr, nullptr, nullptr, nullptr) == 0; ++i) {
    state::RawValue value;
    EXPECT_EQ(state::ReadRaw(key.Get(), name.data(), value), ERROR_SUCCESS);
    if (name[0] != L'\0') {
      lines.push_back(Line(path.empty() ? path : path.substr(1), name.data(), value));
    }
    size = name.size();
  }
  for (DWORD i = 0; RegEnumKeyW(key.Get(), i, name.data(), name.size()) == 0; ++i) {
    Collect(hive, path + L"\\" + name.data(), lines);
  }
}

std::vector<std::string> Values(const std::wstring& hive) {
  std::vector<std::string> lines;
  Collect(hive, L"", lines);
  std::sort(lines.begin(), lines.end());
  return lines;
}

// Everything that the kiosk's registry is to hold: some values in which each type, an empty text, a text of the
// client's and the numbered list show, and the digest of all.
void ExpectAll(const std::vector<std::string>& values) {
  std::string all;
  for (const std::string& line : values) {
    all += line + "\n";
  }
  for (
      const char* decisive :
      {R"(Software\Microsoft\Windows NT\CurrentVersion\Winlogon|Shell|sz|"C:\Program Files\Zażółć gęślą\NorvaneTessalyClient.exe" --kiosk-shell)",
       R"(Software\Microsoft\Windows\CurrentVersion\Policies\System|DisableTaskMgr|dword|1)",
       R"(Software\Microsoft\Windows\CurrentVersion\Policies\System|Wallpaper|sz|)",
       R"(Software\Microsoft\Windows\CurrentVersion\Policies\Explorer|NoDrives|dword|67108863)",
       R"(Software\Microsoft\Windows\CurrentVersion\Policies\Explorer\DisallowRun|15|sz|SystemSettings.exe)"}) {
    EXPECT_EQ(std::count(values.begin(), values.end(), decisive), 1) << decisive;
  }
  EXPECT_EQ(values.size(), kValues);
  EXPECT_EQ(win32::Sha256Hex(all), kDigest) << all;
}

class LockdownTest : public test::VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    sid_ = sim::AddUser(L"NorvaneKiosk");
    sim::RemoveProfile(sid_);
    ASSERT_EQ(sim::MakeProfile(sid_, L"NorvaneKiosk"), DWORD{ERROR_SUCCESS});
    file_ = sim::ProfileFolder(sid_) + L"\\NTUSER.DAT";
  }
  void TearDown() override {
    sim::UnloadHive(sid_);
    sim::UnloadHive(kTemporary);
    sim::RemoveProfile(sid_);
  }
  [[nodiscard]] PolicyResult Write(bool loadHive) const { return WriteKioskUserPolicies(sid_, kClient, loadHive); }
  // What stands in the profile's file.
  std::vector<std::string> Stored() {
    EXPECT_FALSE(sim::HiveLoaded(kTemporary)) << "left loaded";
    EXPECT_EQ(sim::LoadHive(kTemporary, file_), DWORD{ERROR_SUCCESS});
    std::vector<std::string> values = Values(kTemporary);
    EXPECT_EQ(sim::UnloadHive(kTemporary), DWORD{ERROR_SUCCESS});
    return values;
  }

  std::wstring sid_;
  std::wstring file_;
};

TEST_F(LockdownTest, TheProfileHoldsExactlyTheseValues) {
  EXPECT_EQ(Write(true), PolicyResult::kDone);
  ExpectAll(Stored());
  EXPECT_TRUE(test::LogTexts().empty());
  const sim::FaultPass pass;
  EXPECT_EQ(Write(true), PolicyResult::kDone);
  EXPECT_EQ(pass.Count(), 2) << "values were written again";
}

TEST_F(LockdownTest, ASignedInUserIsChangedInPlace) {
  EXPECT_EQ(Write(false), PolicyResult::kDone);
  EXPECT_TRUE(Stored().empty()) << "written for a user who is not signed in";
  ASSERT_EQ(sim::LoadHive(sid_, file_), DWORD{ERROR_SUCCESS});
  // A value of the user's own, of another type.
  const std::wstring desktop = sid_ + L"\\Control Panel\\Desktop";
  const DWORD number = 7;
  RegSetKeyValueW(HKEY_USERS, desktop.c_str(), L"Wallpaper", REG_DWORD, &number, sizeof(number));
  EXPECT_EQ(Write(false), PolicyResult::kDone);
  ExpectAll(Values(sid_));
  RegSetKeyValueW(HKEY_USERS, desktop.c_str(), L"Wallpaper", REG_SZ, L"x", 4);
  {
    const sim::FaultPass pass;
    EXPECT_EQ(Write(true), PolicyResult::kDone);
    EXPECT_EQ(pass.Count(), 1) << "more than the one value that differs was written, or a hive loaded";
  }
  ExpectAll(Values(sid_));
}

TEST_F(LockdownTest, ALeftOverHiveIsUnloadedFirstAndWaitedFor) {
  ASSERT_EQ(sim::LoadHive(kTemporary, file_), DWORD{ERROR_SUCCESS});
  EXPECT_EQ(Write(true), PolicyResult::kDone);
  ExpectAll(Stored());
  // Somebody holds a key of it for a while, and then for good.
  ASSERT_EQ(sim::LoadHive(kTemporary, file_), DWORD{ERROR_SUCCESS});
  win32::RegistryKey held;
  const auto hold = [&held] { RegOpenKeyExW(HKEY_USERS, kTemporary, 0, KEY_READ, held.Put()); };
  hold();
  clock_.At(3'000, [&held] { held.Reset(); });
  EXPECT_EQ(Write(true), PolicyResult::kDone);
  EXPECT_EQ(clock_.Elapsed(), 3'000U);
  ASSERT_EQ(sim::LoadHive(kTemporary, file_), DWORD{ERROR_SUCCESS});
  hold();
  EXPECT_EQ(Write(true), PolicyResult::kFailed);
  EXPECT_EQ(clock_.Elapsed(), 8'000U);
  EXPECT_EQ(Write(false), PolicyResult::kDone);
  EXPECT_EQ(clock_.Elapsed(), 8'000U) << "a check-in waited";
  held.Reset();
  EXPECT_EQ(Write(false), PolicyResult::kDone);
  EXPECT_FALSE(sim::HiveLoaded(kTemporary)) << "the user would get a temporary profile";
  // The same after the values were written: load, unload.
  {
    const sim::FaultPass pass(sim::FaultKind::kFail, 2);
    clock_.At(8'100, hold);
    EXPECT_EQ(Write(true), PolicyResult::kDone);
  }
  EXPECT_EQ(clock_.Elapsed(), 13'000U);
  EXPECT_EQ(test::LogTexts(), (std::vector<std::string>{"ERROR cannot load the kiosk hive (32)",
                                                        "ERROR cannot unload the kiosk hive (5)"}));
  held.Reset();
}

TEST_F(LockdownTest, FailuresAreToldAndStopWhereTheyShould) {
  EXPECT_EQ(WriteKioskUserPolicies(L"S-1-5-21-1-2-3-4", kClient, true), PolicyResult::kFailed);
  // The calls are: load, the shell and nine more, 42 policies, unload.
  struct {
    int failing;
    std::size_t written;
    const char* line;
  } const cases[] = {{1, 0, "ERROR cannot load the kiosk hive (5)"},
                     {6, 4, "ERROR cannot write the kiosk user's settings"},
                     {13, 51, "ERROR cannot write the kiosk user's settings"}};
  std::vector<std::string> logged = {"ERROR no profile path for S-1-5-21-1-2-3-4"};
  for (const auto& failure : cases) {
    {
      const sim::FaultPass pass(sim::FaultKind::kFail, failure.failing);
      EXPECT_EQ(Write(true), PolicyResult::kFailed) << failure.line;
    }
    EXPECT_EQ(Stored().size(), failure.written) << failure.line;
    logged.emplace_back(failure.line);
    // Empty again for the next case.
    ASSERT_EQ(sim::RemoveProfile(sid_), DWORD{ERROR_SUCCESS});
    ASSERT_EQ(sim::MakeProfile(sid_, L"NorvaneKiosk"), DWORD{ERROR_SUCCESS});
  }
  EXPECT_EQ(test::LogTexts(), logged);
}

}  // namespace
}  // namespace kiosk::lockdown
