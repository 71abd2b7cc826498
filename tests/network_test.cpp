// An adapter is set as asked or stays as it was, whatever fails and whenever the power goes.
#include "network/network.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "sim/clock.h"
#include "sim/com.h"
#include "sim/fault_driver.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/stop.h"

#include <utility>

namespace kiosk::network {
namespace {

const std::string kName = sim::Narrow(sim::kFactoryAdapter);
const std::wstring kAdapterArea = std::wstring(L"Adapters\\") + sim::kFactoryAdapter;
const std::wstring kInterface =
    std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\") + sim::kFactoryAdapter;
const std::string kStatic =
    R"("mode":"static","address":"10.1.2.3","prefixLength":24,"gateway":"10.1.2.1","dns":["9.9.9.9","8.8.8.8"])";
const std::string kFailed = R"({"ok":false,"error":"failed"})";

std::string Set(const std::string& members, const std::string& adapter = kName) {
  return json::Serialise(NetSet(*json::Parse("{\"adapter\":\"" + adapter + "\"," + members + "}")));
}

void MakeMachine() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  state::ProtectStateKey();
  sim::ForgetArea(L"Adapters");
  sim::AddAdapter(sim::kFactoryAdapter);
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInterface.c_str());
}

// Two addresses, a gateway and a name server of the owner's.
void MakeItStatic() {
  sim::WriteNumber(kAdapterArea, L"Dhcp", 0);
  sim::WriteText(kAdapterArea, L"Addresses", L"172.16.0.9/16 172.16.0.10/16");
  sim::WriteText(kAdapterArea, L"Gateways", L"172.16.0.1");
  test::SetString(kInterface.c_str(), L"NameServer", L"172.16.0.2,172.16.0.3");
}

bool Recorded() { return state::ReadState(state::kPriorNetwork).has_value(); }

class NetworkTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    MakeMachine();
  }
  void TearDown() override { EXPECT_EQ(sim::LiveComObjects(), 0); }

  sim::VirtualClock clock_{sim::FileTimeOf(2026, 11, 21, 9)};
};

TEST_F(NetworkTest, StaticAndBackIsReadBackFromTheSystem) {
  const std::string before = sim::DumpAdapters();
  sim::WriteNumber(kAdapterArea, L"Lag", 3'000);
  EXPECT_EQ(Set(kStatic), R"({"ok":true,"adapter":")" + kName +
                              R"(","mode":"static","address":"10.1.2.3","prefixLength":24,"gateway":"10.1.2.1",)"
                              R"("dns":["9.9.9.9","8.8.8.8"]})");
  EXPECT_GE(clock_.Elapsed(), 3'000U);
  EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
  // Without a gateway the one from before goes; the identifier's letter case does not matter.
  EXPECT_EQ(
      Set(R"("mode":"static","address":"10.1.2.9","prefixLength":30,"dns":[])",
          "{4c2a9e10-7b5d-4e6f-8a01-9d3c5b7e1f20}"),
      R"({"ok":true,"adapter":")" + kName + R"(","mode":"static","address":"10.1.2.9","prefixLength":30,"dns":[]})");
  const std::string dhcp =
      R"({"ok":true,"adapter":")" + kName +
      R"(","mode":"dhcp","address":"192.168.7.20","prefixLength":24,"gateway":"192.168.7.1","dns":[")";
  EXPECT_EQ(Set(R"("mode":"dhcp","dns":["1.1.1.1"])"), dhcp + R"(1.1.1.1"]})");
  EXPECT_EQ(Set(R"("mode":"dhcp")"), dhcp + R"(192.168.7.2"]})");
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_FALSE(Recorded());
  const sim::FaultPass pass;
  Set(R"("mode":"dhcp")");
  for (const sim::ChangeCall& call : pass.Calls()) {
    EXPECT_NE(call.function, "ExecMethod");
  }
}

TEST_F(NetworkTest, RefusalsNameTheirReasonAndChangeNothing) {
  sim::AddAdapter(L"{00000000-0000-0000-0000-000000000001}", 6, false);  // a virtual switch
  sim::AddAdapter(L"{00000000-0000-0000-0000-000000000002}", 131);       // a tunnel
  sim::AddAdapter(L"{00000000-0000-0000-0000-000000000003}", 71);
  const std::string before = sim::DumpAdapters();
  for (const char* unknown :
       {"{00000000-0000-0000-0000-000000000001}", "{00000000-0000-0000-0000-000000000002}", "4C2A9E10", "x' OR 1=1"}) {
    EXPECT_EQ(Set(kStatic, unknown), R"({"ok":false,"error":"unknown_adapter"})") << unknown;
  }
  EXPECT_EQ(Set(kStatic + R"(,"prefixLength":31)"), R"({"ok":false,"error":"invalid"})");
  EXPECT_EQ(test::CountLogged("WARN net.set refused: invalid prefixLength"), 1);
  sim::WriteNumber(kAdapterArea, L"Cable", 0);
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(test::CountLogged("ERROR net.set: EnableStatic gave 84"), 1);
  EXPECT_EQ(test::CountLogged("INFO net.set: left " + kName + " as it is: DHCP"), 1);
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_TRUE(Set(kStatic, "{00000000-0000-0000-0000-000000000003}").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
}

TEST_F(NetworkTest, WhatDoesNotShowIsPutBack) {
  MakeItStatic();
  const std::string before = sim::DumpAdapters();
  sim::WriteText(kAdapterArea, L"Duplicate", L"10.1.2.3");
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(test::CountLogged("ERROR net.set: another computer has the address on " + kName), 1);
  EXPECT_EQ(test::CountLogged("WARN net.set: put " + kName +
                              " back to what it was before: static 172.16.0.9/16 172.16.0.10/16, "
                              "gateway 172.16.0.1, DNS 172.16.0.2, DNS 172.16.0.3"),
            1);
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  sim::WriteNumber(kAdapterArea, L"EnableDHCP", 82);
  EXPECT_EQ(Set(R"("mode":"dhcp","dns":["1.1.1.1"])"), kFailed);
  sim::ForgetValue(kAdapterArea, L"EnableDHCP");
  MakeItStatic();
  EXPECT_EQ(sim::DumpAdapters(), before);
  sim::WriteNumber(kAdapterArea, L"SetGateways", 71);
  EXPECT_EQ(Set(kStatic), kFailed);  // nor can the gateway be put back: but it never changed
  EXPECT_FALSE(Recorded());
}

TEST_F(NetworkTest, StopLeavesTheRecordForTheNextStart) {
  ASSERT_TRUE(win32::CreateStopEvent());
  const std::string before = sim::DumpAdapters();
  sim::WriteText(kAdapterArea, L"Hangs", L"SetGateways");
  clock_.At(5'000, [] { win32::RequestStop(); });
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(clock_.Elapsed(), 5'000U);
  EXPECT_TRUE(Recorded());
  EXPECT_FALSE(PutBackUnfinishedChanges());  // stopping
  EXPECT_NE(sim::DumpAdapters(), before);
}

TEST_F(NetworkTest, MethodThatNeverEndsIsGivenUpAfterAMinute) {
  const std::string before = sim::DumpAdapters();
  sim::WriteText(kAdapterArea, L"Hangs", L"SetDNSServerSearchOrder");
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_TRUE(Recorded() || sim::DumpAdapters() == before);
  sim::ForgetValue(kAdapterArea, L"Hangs");
  EXPECT_TRUE(PutBackUnfinishedChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_FALSE(Recorded());
}

// Whatever fails, wherever the process ends: after the next start the adapter is as it was, or wholly as asked; and it
// is what the answer said, if there was one.
void EveryPoint(const wchar_t* name, void (*owners)()) {
  const sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 9));
  const auto prepare = [owners] {
    MakeMachine();
    owners();
    const std::string before = sim::DumpAdapters();
    sim::WriteText(L"Expected", L"Before", std::wstring(before.begin(), before.end()));
    sim::ForgetValue(L"Expected", L"Answer");
  };
  const auto run = [] { sim::WriteText(L"Expected", L"Answer", Set(kStatic) == kFailed ? L"failed" : L"ok"); };
  const auto later = [] {
    EXPECT_TRUE(PutBackUnfinishedChanges());
    EXPECT_FALSE(Recorded());
    const std::string now = sim::DumpAdapters();
    const bool asIt = now == sim::Narrow(sim::ReadText(L"Expected", L"Before").value_or(L""));
    const bool asAsked = now == kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n";
    const std::wstring answer = sim::ReadText(L"Expected", L"Answer").value_or(L"");
    EXPECT_TRUE(answer == L"ok" ? asAsked : answer == L"failed" ? asIt : asIt || asAsked) << now;
  };
  sim::RunFaultScenario({.name = name, .prepare = prepare, .run = run, .later = later});
}

TEST(NetworkFaults, FromDhcp) {
  EveryPoint(L"dhcp to static", [] {});
}
TEST(NetworkFaults, FromStatic) { EveryPoint(L"static to static", MakeItStatic); }

}  // namespace
}  // namespace kiosk::network
