// An adapter is set as asked or stays as it was, whatever fails and whenever the power goes.
#include "network/network.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "network/trial.h"
#include "portal/device_token.h"
#include "portal/worker_wake.h"
#include "service/worker.h"
#include "sim/clock.h"
#include "sim/com.h"
#include "sim/fault_driver.h"
#include "sim/http.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <algorithm>
#include <string>
#include <vector>

namespace kiosk::network {
namespace {

const std::string kName = sim::Narrow(sim::kFactoryAdapter);
const std::wstring kAdapterArea = std::wstring(L"Adapters\\") + sim::kFactoryAdapter;
const std::wstring kInterface =
    std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\") + sim::kFactoryAdapter;
constexpr wchar_t kPersistentRoutes[] = L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\PersistentRoutes";
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
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInterface.c_str());
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPersistentRoutes);
  sim::AddAdapter(sim::kFactoryAdapter);
}

// Two addresses, a gateway and a name server of the owner's.
void MakeItStatic() {
  sim::WriteNumber(kAdapterArea, L"Dhcp", 0);
  sim::WriteText(kAdapterArea, L"Addresses", L"172.16.0.9/16 172.16.0.10/16");
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"172.16.0.1");
  test::SetString(kInterface.c_str(), L"NameServer", L"172.16.0.2,172.16.0.3");
}

void Enrol() {
  const BYTE token = 1;
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, &token, 1);
}

// What stands on record of the adapter, in the words of the registry.
void Record(const std::string& members) {
  const std::string text = R"([{"adapter":")" + kName + "\"," + members + "}]";
  test::SetString(state::kStateKey, L"PriorNetwork", std::wstring(text.begin(), text.end()));
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
  EXPECT_FALSE(SettleChanges());  // stopping
  EXPECT_NE(sim::DumpAdapters(), before);
}

TEST_F(NetworkTest, MethodThatNeverEndsIsGivenUpAfterAMinute) {
  const std::string before = sim::DumpAdapters();
  sim::WriteText(kAdapterArea, L"Hangs", L"SetDNSServerSearchOrder");
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_TRUE(Recorded() || sim::DumpAdapters() == before);
  sim::ForgetValue(kAdapterArea, L"Hangs");
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);
  EXPECT_FALSE(Recorded());
}

// One that is in force, and one that comes with the next restart: Windows keeps both when DHCP is switched on.
TEST_F(NetworkTest, GatewaysSetByHandBesideDhcp) {
  const std::string before = sim::DumpAdapters();
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.9.9.9");
  const std::string byHand = sim::DumpAdapters();
  sim::WriteNumber(kAdapterArea, L"SetDNSServerSearchOrder", 70);
  EXPECT_EQ(Set(R"("mode":"dhcp")"), kFailed);
  EXPECT_EQ(Set(kStatic), kFailed);
  EXPECT_EQ(sim::DumpAdapters(), byHand);  // put back with what had been set by hand
  EXPECT_FALSE(Recorded());
  sim::ForgetValue(kAdapterArea, L"SetDNSServerSearchOrder");
  sim::WriteText(kAdapterArea, L"Gateways", L"");  // not in force until a restart
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
  // The network gives the same one: it stays in force, and goes where it had been set by hand.
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"192.168.7.1");
  sim::WriteText(kAdapterArea, L"Gateways", L"");
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
  // What "route -p" made is the owner's.
  test::SetString(kPersistentRoutes, L"0.0.0.0,0.0.0.0,10.8.8.8,1", L"");
  sim::WriteText(kAdapterArea, L"OwnersRoutes", L"10.8.8.8");
  EXPECT_TRUE(Set(kStatic).starts_with(R"({"ok":true)"));
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_EQ(sim::DumpAdapters(), before);
}

constexpr char kDhcpRecord[] = R"("settings":{"dhcp":true,"addresses":[],"gateways":[],"dns":[]})";
constexpr char kWantedRecord[] =
    R"(,"wanted":{"dhcp":false,"addresses":[{"address":"10.1.2.3","prefixLength":24}],"gateways":["10.1.2.1"],"dns":[]})";

// Left by a kill between two steps, with the address set and nothing else.
TEST_F(NetworkTest, UnfinishedChangeIsPutBackUnlessSomebodyElseHasSetTheAdapterSince) {
  const std::string before = sim::DumpAdapters();
  sim::WriteNumber(kAdapterArea, L"Dhcp", 0);
  sim::WriteText(kAdapterArea, L"Addresses", L"10.1.2.3/24");
  Record(std::string(kDhcpRecord) + kWantedRecord);
  Set(R"("mode":"?")");  // the log tree exists
  sim::WriteNumber(kAdapterArea, L"Cable", 0);
  {
    const sim::FaultPass pass;
    EXPECT_FALSE(SettleChanges());
    EXPECT_FALSE(EndChanges());
    EXPECT_EQ(pass.Count(), 0);  // nothing is tried without a link
  }
  sim::WriteNumber(kAdapterArea, L"Cable", 1);
  sim::WriteNumber(kAdapterArea, L"Hardware", 0);  // as if it were unplugged: worth waiting for, not at the very end
  EXPECT_FALSE(SettleChanges());
  EXPECT_TRUE(EndChanges());
  EXPECT_TRUE(Recorded());
  sim::WriteNumber(kAdapterArea, L"Hardware", 1);
  sim::WriteNumber(kAdapterArea, L"EnableDHCP", 82);
  EXPECT_FALSE(SettleChanges());
  EXPECT_FALSE(SettleChanges());
  EXPECT_EQ(test::CountLogged("ERROR net.set: EnableDHCP gave 82"), 0);  // only the first try of all tells its steps
  EXPECT_EQ(test::CountLogged("ERROR net.set: an unfinished change of " + kName + " cannot be undone yet; trying on"),
            1);
  sim::ForgetValue(kAdapterArea, L"EnableDHCP");
  EXPECT_TRUE(SettleChanges());
  EXPECT_EQ(sim::DumpAdapters(), before);

  MakeItStatic();
  const std::string owners = sim::DumpAdapters();
  Record(std::string(kDhcpRecord) + kWantedRecord);
  EXPECT_TRUE(SettleChanges());
  EXPECT_FALSE(Recorded());
  EXPECT_EQ(sim::DumpAdapters(), owners);
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

// With the worker, which checks in at a portal that answers nothing, and never anything that it acts on.
class NetworkTrialTest : public NetworkTest {
 protected:
  void SetUp() override {
    NetworkTest::SetUp();
    test::SetString(state::kStateKey, L"AuthBaseUrl", L"http://portal.test");
    ASSERT_TRUE(portal::StoreDeviceToken("tok"));
    ASSERT_TRUE(win32::CreateStopEvent());
    ASSERT_TRUE(portal::CreateWorkerWake());
    portal_.On(L"POST", L"/api/kiosk/check-in", [this](const sim::Request&) { return answer_; });
    before_ = sim::DumpAdapters();
  }
  void TearDown() override {
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(worker_.Get(), 10'000), WAIT_OBJECT_0);
    NetworkTest::TearDown();
  }
  void StartWorker() {
    worker_ = win32::StartThread([]() noexcept { service::RunWorker(); });
    clock_.RunFor(1'000);
  }
  // The wrong network: nothing that is set leads to the portal.
  void SetWrong() { EXPECT_TRUE(Set(kStatic).starts_with(R"({"ok":true)")); }
  bool IsBack() const { return sim::DumpAdapters() == before_ && !Recorded(); }

  const sim::Response silence_{.sendError = ERROR_WINHTTP_CANNOT_CONNECT};
  sim::ScriptedPortal portal_;
  sim::Response answer_ = silence_;  // read by the worker, written while it waits
  std::string before_;
  win32::KernelHandle worker_;
};

TEST_F(NetworkTrialTest, WithoutAnAnswerTheSettingsBeforeComeBackAfterFiveMinutes) {
  StartWorker();
  clock_.RunFor(200'000);  // so long that the worker backs off
  for (const sim::Response& noProof : {silence_, sim::Response{.status = 407}}) {
    answer_ = noProof;
    const std::size_t asked = portal_.Requests().size();
    SetWrong();
    clock_.RunFor(295'000);
    EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
    EXPECT_EQ(portal_.Requests().size() - asked, 10U);
    clock_.RunFor(10'000);
    EXPECT_TRUE(IsBack());
    clock_.RunFor(20'000);
  }
  EXPECT_EQ(test::CountLogged("WARN net.set: no answer from the portal in 5 minutes since " + kName +
                              " was set to static 10.1.2.3/24, gateway 10.1.2.1, DNS 9.9.9.9, DNS 8.8.8.8; going back"),
            2);
  EXPECT_EQ(test::CountLogged("WARN net.set: put " + kName + " back to what it was before: DHCP"), 2);
}

TEST_F(NetworkTrialTest, AnAnswerToARequestThatBeganAfterTheChangeProvesIt) {
  answer_ = {.status = 503, .headersDelay = 8'000};
  StartWorker();  // its request began before the change
  SetWrong();
  clock_.RunFor(9'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(9'000);
  EXPECT_FALSE(Recorded());
  answer_ = silence_;
  clock_.RunFor(600'000);
  EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
  // It is noted before the answer ends kiosk mode.
  answer_ = {.status = 401, .body = R"({"status":"revoked"})"};
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  clock_.RunFor(1'000);
  const std::vector<std::string> log = test::LogTexts();
  const auto proven =
      std::find(log.begin(), log.end(), "INFO net.set: the portal answers; " + kName + " stays as it is: DHCP");
  EXPECT_NE(std::find_if(proven, log.end(),
                         [](const std::string& line) { return line.starts_with("WARN removing kiosk mode"); }),
            log.end());
}

TEST_F(NetworkTrialTest, OnlyTimeWithALinkAndAwakeCounts) {
  StartWorker();
  SetWrong();
  clock_.RunFor(200'000);
  sim::WriteNumber(kAdapterArea, L"Cable", 0);
  clock_.RunFor(1'000'000);
  sim::WriteNumber(kAdapterArea, L"Cable", 1);
  for (DWORD slept = 30; slept <= 600; slept += 30) {
    sim::WriteNumber(L"", L"SleptSeconds", slept);
    clock_.RunFor(30'000);
  }
  EXPECT_TRUE(Recorded());
  clock_.RunFor(200'000);
  EXPECT_TRUE(IsBack());
}

TEST_F(NetworkTrialTest, OfARowOfChangesTheSettingsBeforeTheFirstComeBack) {
  StartWorker();
  SetWrong();
  clock_.RunFor(250'000);
  EXPECT_TRUE(Set(R"("mode":"static","address":"10.5.5.5","prefixLength":8,"dns":[])").starts_with(R"({"ok":true)"));
  clock_.RunFor(250'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(55'000);
  EXPECT_TRUE(IsBack());
  // And when somebody else has set it meanwhile, it is left alone.
  SetWrong();
  sim::WriteText(kAdapterArea, L"Addresses", L"10.7.7.7/24");
  clock_.RunFor(310'000);
  EXPECT_FALSE(Recorded());
  EXPECT_NE(sim::DumpAdapters(), before_);
  EXPECT_EQ(test::CountLogged("INFO net.set: left " + kName +
                              " as it is: static 10.7.7.7/24, gateway 10.1.2.1, DNS 9.9.9.9, DNS 8.8.8.8"),
            1);
}

TEST_F(NetworkTrialTest, NothingIsProvenForAnotherNetworkOrAtTheEnd) {
  StartWorker();
  EXPECT_TRUE(Set(kStatic + R"(,"keep":true)").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
  EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  EXPECT_TRUE(Recorded());
  EXPECT_TRUE(Set(R"("mode":"dhcp","keep":true)").starts_with(R"({"ok":true)"));
  EXPECT_FALSE(Recorded());
  SetWrong();
  EXPECT_TRUE(EndChanges());  // of kiosk mode
  EXPECT_FALSE(Recorded());
  clock_.RunFor(600'000);
  EXPECT_EQ(sim::DumpAdapters(), kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
}

TEST_F(NetworkTrialTest, AStartBeginsTheFiveMinutesAnew) {
  sim::WriteNumber(kAdapterArea, L"Dhcp", 0);
  sim::WriteText(kAdapterArea, L"Addresses", L"10.1.2.3/24");
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"10.1.2.1");
  Record(std::string(kDhcpRecord) + kWantedRecord + R"(,"unproven":true)");
  StartWorker();
  clock_.RunFor(290'000);
  EXPECT_TRUE(Recorded());
  clock_.RunFor(20'000);
  EXPECT_TRUE(IsBack());
}

// Whatever fails, wherever the process ends: after the next start the adapter is as it was, or wholly as asked; and it
// is what the answer said, if there was one.
void EveryPoint(const wchar_t* name, void (*owners)(), const std::string& request, const std::string& asked) {
  const sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 9));
  const auto prepare = [owners] {
    MakeMachine();
    Set(R"("mode":"?")");  // the log tree exists
    owners();
    const std::string before = sim::DumpAdapters();
    sim::WriteText(L"Expected", L"Before", std::wstring(before.begin(), before.end()));
    sim::ForgetValue(L"Expected", L"Answer");
  };
  const auto run = [&] { sim::WriteText(L"Expected", L"Answer", Set(request) == kFailed ? L"failed" : L"ok"); };
  const auto later = [&] {
    NoteAnswer(ChangesMade(), 200);
    EXPECT_TRUE(SettleChanges());
    EXPECT_FALSE(Recorded());
    const std::string now = sim::DumpAdapters();
    const bool asIt = now == sim::Narrow(sim::ReadText(L"Expected", L"Before").value_or(L""));
    const std::wstring answer = sim::ReadText(L"Expected", L"Answer").value_or(L"");
    EXPECT_TRUE(answer == L"ok" ? now == asked : answer == L"failed" ? asIt : asIt || now == asked) << now;
  };
  sim::RunFaultScenario({.name = name, .prepare = prepare, .run = run, .later = later});
}

TEST(NetworkFaults, FromDhcp) {
  EveryPoint(L"dhcp to static", Enrol, kStatic, kName + " static [10.1.2.3/24] [10.1.2.1] [9.9.9.9 8.8.8.8]\n");
}
TEST(NetworkFaults, FromStatic) {
  EveryPoint(L"static to dhcp", MakeItStatic, R"("mode":"dhcp")", kName + " dhcp [] [] []\n");
}

// The way back after five minutes is gone to its end, however often it is begun.
TEST(NetworkFaults, WithoutAnAnswer) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 11, 21, 9));
  const auto fiveMinutes = [&clock] {
    SettleChanges();
    clock.RunFor(300'000);
    return SettleChanges();
  };
  const auto prepare = [] {
    MakeMachine();
    MakeItStatic();
    Enrol();
    const std::string before = sim::DumpAdapters();
    sim::WriteText(L"Expected", L"Before", std::wstring(before.begin(), before.end()));
    EXPECT_TRUE(Set(R"("mode":"dhcp")").starts_with(R"({"ok":true)"));
  };
  const auto later = [&] {
    EXPECT_TRUE(fiveMinutes());
    EXPECT_FALSE(Recorded());
    EXPECT_EQ(sim::DumpAdapters(), sim::Narrow(sim::ReadText(L"Expected", L"Before").value_or(L"")));
  };
  sim::RunFaultScenario({.name = L"no answer", .prepare = prepare, .run = fiveMinutes, .later = later});
}

}  // namespace
}  // namespace kiosk::network
