// An adapter is set as asked or stays as it was, whatever fails and whenever the power goes.
#include "network/network.h"

#include "sim/faults.h"
#include "tests/support/network_adapter.h"
#include "win32/stop.h"

namespace kiosk::network {
namespace {

TEST_F(NetworkTest, StaticAndBackIsReadBackFromTheSystem) {
  const std::string before = sim::DumpAdapters();
  kAdapter.lag.Set(3'000);
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
  kAdapter.cable.Set(0);
  {
    const sim::FaultPass pass;
    EXPECT_EQ(Set(kStatic), kFailed);
    EXPECT_EQ(pass.Count(), 0);  // nor is anything noted: without a link gateways do not show
  }
  EXPECT_EQ(test::CountLogged("WARN net.set refused: " + kName + " has no link"), 1);
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_TRUE(Set(kStatic, "{00000000-0000-0000-0000-000000000003}").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
}

TEST_F(NetworkTest, WhatDoesNotShowIsPutBack) {
  MakeItStatic();
  const std::string before = sim::DumpAdapters();
  kAdapter.duplicate.Set(L"10.1.2.3");
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(test::CountLogged("ERROR net.set: another computer has the address on " + kName), 1);
  EXPECT_EQ(test::CountLogged("WARN net.set: put " + kName +
                              " back to what it was before: static 172.16.0.9/16 172.16.0.10/16, "
                              "gateway 172.16.0.1, DNS 172.16.0.2, DNS 172.16.0.3"),
            1);
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  kAdapter.enableDhcp.Set(82);
  EXPECT_EQ(Set(R"("mode":"dhcp","dns":["1.1.1.1"])"), kFailed);
  kAdapter.enableDhcp.Forget();
  MakeItStatic();
  EXPECT_EQ(sim::DumpAdapters(), before);
  kAdapter.setGateways.Set(71);
  EXPECT_EQ(Set(kStatic), kFailed);  // nor can the gateway be put back: but it never changed
  EXPECT_FALSE(Recorded());
}

TEST_F(NetworkTest, StopLeavesTheRecordForTheNextStart) {
  ASSERT_TRUE(win32::CreateStopEvent());
  const std::string before = sim::DumpAdapters();
  kAdapter.hangs.Set(L"SetGateways");
  clock_.At(5'000, [] { win32::RequestStop(); });
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(clock_.Elapsed(), 5'000U);
  EXPECT_TRUE(Recorded());
  EXPECT_FALSE(SettleChanges());  // stopping
  EXPECT_NE(sim::DumpAdapters(), before);
}

TEST_F(NetworkTest, CallThatNeverEndsIsGivenUp) {
  const std::string before = sim::DumpAdapters();
  for (const wchar_t* call : {L"GetObject", L"SetDNSServerSearchOrder"}) {
    kAdapter.hangs.Set(call);
    EXPECT_EQ(Set(kStatic), kFailed);
    EXPECT_TRUE(Recorded() || sim::DumpAdapters() == before);
    kAdapter.hangs.Forget();
    EXPECT_TRUE(SettleChanges());
    EXPECT_EQ(sim::DumpAdapters(), before);
    EXPECT_FALSE(Recorded());
  }
}

// One that is in force, and one that comes with the next restart: Windows keeps both when DHCP is switched on.
TEST_F(NetworkTest, GatewaysSetByHandBesideDhcp) {
  const std::string before = sim::DumpAdapters();
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.9.9.9");
  const std::string byHand = sim::DumpAdapters();
  kAdapter.setNameServers.Set(70);
  EXPECT_EQ(Set(R"("mode":"dhcp")"), kFailed);
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(sim::DumpAdapters(), byHand);  // put back with what had been set by hand
  EXPECT_FALSE(Recorded());
  kAdapter.setNameServers.Forget();
  kAdapter.gateways.Set(L"");  // not in force until a restart
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
  // The network gives the same one: it stays in force, and goes where it had been set by hand.
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"192.168.7.1");
  kAdapter.gateways.Set(L"");
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
  // What "route -p" made is the owner's.
  test::SetString(kPersistentRoutes, L"0.0.0.0,0.0.0.0,10.8.8.8,1", L"");
  kAdapter.ownersRoutes.Set(L"10.8.8.8");
  EXPECT_TRUE(Set(kStatic).starts_with(R"({"ok":true)"));
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
}

// Left by a kill between two steps, with the address set and nothing else.
TEST_F(NetworkTest, UnfinishedChangeIsPutBackUnlessSomebodyElseHasSetTheAdapterSince) {
  const std::string before = sim::DumpAdapters();
  kAdapter.dhcp.Set(0);
  kAdapter.addresses.Set(L"10.1.2.3/24");
  Record(std::string(kDhcpRecord) + kWantedRecord);
  Set(R"("mode":"?")");  // the log tree exists
  kAdapter.cable.Set(0);
  {
    const sim::FaultPass pass;
    EXPECT_FALSE(SettleChanges());
    EXPECT_FALSE(EndChanges());
    EXPECT_EQ(pass.Count(), 0);  // nothing is tried without a link
  }
  kAdapter.cable.Set(1);
  kAdapter.hardware.Set(0);  // as if it were unplugged: worth waiting for, not at the very end
  EXPECT_FALSE(SettleChanges());
  EXPECT_TRUE(EndChanges());
  EXPECT_TRUE(Recorded());
  kAdapter.hardware.Set(1);
  kAdapter.enableDhcp.Set(82);
  EXPECT_FALSE(SettleChanges());
  EXPECT_FALSE(SettleChanges());
  EXPECT_EQ(test::CountLogged("ERROR net.set: EnableDHCP gave 82"), 0);  // only the first try of all tells its steps
  EXPECT_EQ(test::CountLogged("ERROR net.set: an unfinished change of " + kName + " cannot be undone yet; trying on"),
            1);
  kAdapter.enableDhcp.Forget();
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);

  MakeItStatic();
  const std::string owners = sim::DumpAdapters();
  Record(std::string(kDhcpRecord) + kWantedRecord);
  EXPECT_TRUE(SettleChanges());
  EXPECT_FALSE(Recorded());
  EXPECT_EQ(sim::DumpAdapters(), owners);
}

TEST_F(NetworkTest, WithoutALinkNothingIsTakenForTheSettingsBefore) {
  kAdapter.dhcp.Set(0);
  kAdapter.addresses.Set(L"10.1.2.3/24");
  const std::string before = sim::DumpAdapters();
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.1.2.1");
  Record(R"("settings":{"dhcp":false,"addresses":[{"address":"10.1.2.3","prefixLength":24}],"gateways":[],"dns":[]})" +
         std::string(kWantedRecord));
  kAdapter.cable.Set(0);
  EXPECT_FALSE(SettleChanges());
  kAdapter.cable.Set(1);
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);
}

TEST_F(NetworkTest, ARecordThatCannotBeReadIsNotTakenForNone) {
  const std::string before = sim::DumpAdapters();
  kAdapter.dhcp.Set(0);
  kAdapter.addresses.Set(L"10.1.2.3/24");
  Record(std::string(kDhcpRecord) + kWantedRecord);
  {
    const sim::FailingReads failing(L"PriorNetwork", ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_EQ(Set(kStatic), kFailed);
    EXPECT_FALSE(SettleChanges());
    EXPECT_FALSE(EndChanges());
  }
  for (const auto settle : {SettleChanges, EndChanges}) {  // there a moment ago, and not readable now
    const sim::FailingReads failing(L"PriorNetwork", ERROR_NO_SYSTEM_RESOURCES, 2);
    EXPECT_FALSE(settle());
  }
  EXPECT_TRUE(Recorded());
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);
}

TEST_F(NetworkTest, ADamagedRecordGoes) {
  for (const auto settle : {SettleChanges, EndChanges}) {
    test::SetString(state::kStateKey, L"PriorNetwork", L"[{\"adapter\":");
    EXPECT_TRUE(settle());
    EXPECT_FALSE(Recorded());
  }
}

TEST_F(NetworkTest, RecordOfAnOlderVersionDoesNotKnowGatewaysBesideDhcp) {
  const std::string before = sim::DumpAdapters();
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.9.9.9");
  const std::string byHand = sim::DumpAdapters();
  Record(kDhcpRecord);
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), byHand);
  MakeItStatic();
  test::SetString(kInterface.c_str(), L"NameServer", L"");
  Record(kDhcpRecord);
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_FALSE(Recorded());
}

}  // namespace
}  // namespace kiosk::network
