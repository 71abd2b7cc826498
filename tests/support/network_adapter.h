// The one adapter of a simulated computer, for the tests of "net.set".
#pragma once

#include "json/parse.h"
#include "json/serialise.h"
#include "network/network.h"
#include "sim/com.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"

#include <string>

namespace kiosk::network {

inline const std::string kName = sim::Narrow(sim::kFactoryAdapter);
inline const sim::Adapter kAdapter(sim::kFactoryAdapter);
inline const std::wstring kInterface =
    std::wstring(L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\") + sim::kFactoryAdapter;
inline constexpr wchar_t kPersistentRoutes[] =
    L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\PersistentRoutes";
inline const std::string kStatic =
    R"("mode":"static","address":"10.1.2.3","prefixLength":24,"gateway":"10.1.2.1","dns":["9.9.9.9","8.8.8.8"])";
inline const std::string kFailed = R"({"ok":false,"error":"failed"})";

inline std::string Set(const std::string& members, const std::string& adapter = kName) {
  return json::Serialise(test::Ask(NetSet, "{\"adapter\":\"" + adapter + "\"," + members + "}"));
}

inline void MakeMachine() {
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Norvane");
  state::ProtectStateKey();
  sim::ForgetArea(L"Adapters");
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kInterface.c_str());
  RegDeleteTreeW(HKEY_LOCAL_MACHINE, kPersistentRoutes);
  sim::AddAdapter(sim::kFactoryAdapter);
}

// Two addresses, a gateway and a name server of the owner's.
inline void MakeItStatic() {
  kAdapter.dhcp.Set(0);
  kAdapter.addresses.Set(L"172.16.0.9/16 172.16.0.10/16");
  sim::SetGatewaysByHand(sim::kFactoryAdapter, L"172.16.0.1");
  test::SetString(kInterface.c_str(), L"NameServer", L"172.16.0.2,172.16.0.3");
}

inline void Enrol() {
  const BYTE token = 1;
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, &token, 1);
}

// What stands on record of the adapter, in the words of the registry.
inline void Record(const std::string& members) {
  const std::string text = R"([{"adapter":")" + kName + "\"," + members + "}]";
  test::SetString(state::kStateKey, L"PriorNetwork", std::wstring(text.begin(), text.end()));
}

inline bool Recorded() { return state::ReadState(state::kPriorNetwork).has_value(); }

inline constexpr char kDhcpRecord[] = R"("settings":{"dhcp":true,"addresses":[],"gateways":[],"dns":[]})";
inline constexpr char kWantedRecord[] =
    R"(,"wanted":{"dhcp":false,"addresses":[{"address":"10.1.2.3","prefixLength":24}],"gateways":["10.1.2.1"],"dns":[]})";

class NetworkTest : public test::VirtualComputer {
 protected:
  void SetUp() override {
    VirtualComputer::SetUp();
    MakeMachine();
  }
  void TearDown() override { EXPECT_EQ(sim::LiveComObjects(), 0); }
};

}  // namespace kiosk::network
