// The default proxy is set and read back, and the computer's own comes back when kiosk mode ends.
#include "proxy/proxy.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "proxy/proxy_settings.h"
#include "sim/fault_driver.h"
#include "state/kiosk_state.h"
#include "tests/support/command.h"
#include "tests/support/fixture.h"

#include <winhttp.h>

namespace kiosk::proxy {
namespace {

const std::string kManual = R"({"mode":"manual","server":"proxy.test:8080","bypass":"*.intra.test;<local>"})";

std::string Set(const std::string& request) { return json::Serialise(test::Ask(ProxySet, request)); }

// With plain Windows calls; an empty server is direct access.
void SetOwners(std::wstring server, std::wstring bypass = L"") {
  WINHTTP_PROXY_INFO info{server.empty() ? DWORD{WINHTTP_ACCESS_TYPE_NO_PROXY} : DWORD{WINHTTP_ACCESS_TYPE_NAMED_PROXY},
                          server.empty() ? nullptr : server.data(), bypass.empty() ? nullptr : bypass.data()};
  EXPECT_TRUE(WinHttpSetDefaultProxyConfiguration(&info));
}

std::wstring Now() {
  WINHTTP_PROXY_INFO info{};
  EXPECT_TRUE(WinHttpGetDefaultProxyConfiguration(&info));
  std::wstring text = info.dwAccessType == WINHTTP_ACCESS_TYPE_NAMED_PROXY ? info.lpszProxy : L"direct";
  text += info.lpszProxyBypass != nullptr && *info.lpszProxyBypass != L'\0'
              ? std::wstring(L" not for ") + info.lpszProxyBypass
              : L"";
  GlobalFree(info.lpszProxy);
  GlobalFree(info.lpszProxyBypass);
  return text;
}

constexpr wchar_t kConnections[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Internet Settings\\Connections";
constexpr wchar_t kSettings[] = L"WinHttpSettings";

// What Windows keeps: after three numbers, of which the third is flags, the texts of proxy, bypass and script.
std::string Kept() {
  state::RawValue value;
  return state::ReadValue(kConnections, kSettings, value) == ERROR_SUCCESS
             ? std::string(value.bytes.begin(), value.bytes.end())
             : "none";
}
bool HasScript() { return Kept().size() > 8 && (Kept()[8] & 4) != 0; }

// As "netsh winhttp set advproxy" leaves it: a script alone, or beside a proxy.
const std::string kScript("\x18\0\0\0\7\0\0\0\5\0\0\0\0\0\0\0\0\0\0\0\6\0\0\0http:/", 30);
const std::string kScriptAndProxy("\x18\0\0\0\7\0\0\0\7\0\0\0\5\0\0\0o.t:1\0\0\0\0\6\0\0\0http:/", 35);
void Keep(const std::string& bytes) { test::SetRaw(kConnections, kSettings, REG_BINARY, bytes.data(), bytes.size()); }

// As on a fresh Windows, without what the case before left.
void ForgetSetting() { RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kConnections, kSettings); }

void MakeMachine() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  ForgetSetting();
  state::ProtectStateKey();
  SetOwners(L"owner.test:3128", L"a.test");
}

bool Recorded() {
  return state::ReadState(state::kPriorWinHttpSettings) || state::ReadState(state::kPriorProxy) ||
         state::ReadState(state::kAppliedProxy);
}

class ProxyTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    MakeMachine();
  }
  void TearDown() override { ForgetSetting(); }
};

TEST_F(ProxyTest, EachModeIsAppliedAndEchoed) {
  EXPECT_EQ(Set(kManual), R"({"ok":true,"mode":"manual","server":"proxy.test:8080","bypass":"*.intra.test;<local>"})");
  EXPECT_EQ(Now(), L"proxy.test:8080 not for *.intra.test;<local>");
  EXPECT_EQ(Set(R"({"mode":"manual","server":"http=p:1;https=[::1]:2"})"),
            R"({"ok":true,"mode":"manual","server":"http=p:1;https=[::1]:2","bypass":""})");
  EXPECT_EQ(Set(R"({"mode":"auto","pacUrl":"http://p.test/proxy.pac","server":"ignored"})"),
            R"({"ok":true,"mode":"auto","pacUrl":"http://p.test/proxy.pac"})");
  EXPECT_EQ(Now(), L"direct");
  Set(kManual);
  EXPECT_EQ(Set(R"({"mode":"none"})"), R"({"ok":true,"mode":"none"})");
  EXPECT_EQ(Now(), L"direct");
  EXPECT_EQ(Set(R"({"mode":"manual","server":"p"})"), R"({"ok":false,"error":"invalid"})");
  EXPECT_EQ(test::CountLogged("WARN proxy.set refused: invalid server"), 1);
  EXPECT_EQ(Now(), L"direct");
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Now(), L"owner.test:3128 not for a.test");
  EXPECT_FALSE(Recorded());
}

TEST_F(ProxyTest, OnlyWhatIsStillOursIsPutBack) {
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Now(), L"owner.test:3128 not for a.test");
  Set(kManual);
  SetOwners(L"later.test:1");
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Now(), L"later.test:1");
  EXPECT_FALSE(Recorded());

  Set(kManual);
  SetOwners(L"evenlater.test:2");  // and what is replaced now is the owner's newer one
  Set(R"({"mode":"none"})");
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Now(), L"evenlater.test:2");

  Set(kManual);  // back by command: nothing is left to be given back
  Set(R"({"mode":"manual","server":"evenlater.test:2"})");
  EXPECT_FALSE(Recorded());
  test::SetDword(state::kStateKey, L"TeardownPending", 1);
  EXPECT_EQ(Set(kManual), R"({"ok":false,"error":"failed"})");
  EXPECT_EQ(Now(), L"evenlater.test:2");
}

TEST_F(ProxyTest, NotesThatCannotBeReadAreNotTakenForNone) {
  for (const wchar_t* name : {L"PriorWinHttpSettings", L"AppliedProxy", L"PriorProxy"}) {
    Set(kManual);
    {
      const sim::FailingReads failing(name, ERROR_NO_SYSTEM_RESOURCES);
      EXPECT_EQ(Set(R"({"mode":"manual","server":"other.test:1"})"), R"({"ok":false,"error":"failed"})");
      EXPECT_FALSE(RestoreProxy());
    }
    EXPECT_EQ(Now(), L"proxy.test:8080 not for *.intra.test;<local>");
    const sim::FailingReads once(name, ERROR_NO_SYSTEM_RESOURCES, 1);
    EXPECT_TRUE(RestoreProxy());
    EXPECT_EQ(Now(), L"owner.test:3128 not for a.test") << sim::Narrow(name);
  }
}

TEST_F(ProxyTest, TheOwnersSettingComesBackByteForByte) {
  for (const std::string& owners : {kScript, kScriptAndProxy, std::string("none")}) {
    Keep(owners);
    if (owners == "none") {
      RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kConnections, kSettings);
    }
    for (const std::string& request : {std::string(R"({"mode":"none"})"), kManual}) {
      EXPECT_TRUE(Set(request).starts_with(R"({"ok":true)"));
      EXPECT_EQ(Now(), request == kManual ? L"proxy.test:8080 not for *.intra.test;<local>" : L"direct");
      EXPECT_FALSE(HasScript());
    }
    EXPECT_TRUE(RestoreProxy());
    EXPECT_EQ(Kept(), owners);
    EXPECT_FALSE(Recorded());
  }
  Set(kManual);
  Keep(kScriptAndProxy);  // somebody else's, later
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Kept(), kScriptAndProxy);
  EXPECT_FALSE(Recorded());
}

TEST_F(ProxyTest, RecordOfAnOlderVersionCounts) {
  SetOwners(L"set.test:1");
  test::SetString(state::kStateKey, L"PriorProxy", LR"({"server":"owner.test:3128","bypass":"a.test"})");
  test::SetString(state::kStateKey, L"AppliedProxy", LR"([{"server":"set.test:1","bypass":""}])");
  Set(kManual);
  EXPECT_TRUE(RestoreProxy());
  EXPECT_EQ(Now(), L"owner.test:3128 not for a.test");
  EXPECT_FALSE(Recorded());
}

TEST(ProxyFaults, OwnersSettingSurvivesThemAll) {
  const auto prepare = [] {
    MakeMachine();
    Keep(kScriptAndProxy);
    Set(R"({"mode":"?"})");  // the log tree exists
  };
  const auto run = [] {
    Set(kManual);
    Set(R"({"mode":"manual","server":"second.test:1"})");
    EXPECT_TRUE(RestoreProxy());
  };
  const auto later = [] {
    if (!sim::FailedCall().empty()) {
      EXPECT_EQ(Kept(), kScriptAndProxy) << sim::FailedCall();
    }
    EXPECT_TRUE(RestoreProxy());
    EXPECT_EQ(Kept(), kScriptAndProxy);
    EXPECT_FALSE(Recorded());
  };
  sim::RunFaultScenario({.name = L"proxy", .prepare = prepare, .run = run, .later = later});
  ForgetSetting();
}

}  // namespace
}  // namespace kiosk::proxy
