// The simulated accounts, secrets, profiles, sessions, callers and restarts: what the tests of kiosk mode lean on.
#include "pipe/caller.h"
#include "sim/accounts.h"
#include "sim/callers.h"
#include "sim/clock.h"
#include "sim/computer.h"
#include "sim/lsa.h"
#include "sim/profiles.h"
#include "sim/service_control.h"
#include "sim/sessions.h"
#include "tests/support/fixture.h"
#include "win32/handle.h"
#include "win32/privilege.h"
#include "win32/security.h"

#include <lm.h>
#include <ntsecapi.h>
#include <userenv.h>
#include <wtsapi32.h>

#include <set>
#include <tuple>

namespace {

constexpr wchar_t kWinlogon[] = L"SOFTWARE\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
constexpr wchar_t kUsers[] = L"S-1-5-32-545";

class SimComputer : public kiosk::test::CleanMachine {
 protected:
  void TearDown() override {
    sim::EndAllSessions();
    EXPECT_EQ(sim::OpenNetBuffers() + sim::OpenLsaObjects() + sim::OpenSessionBuffers(), 0);
  }
};

NET_API_STATUS Add(const wchar_t* name, const wchar_t* password) {
  std::wstring mutableName = name;
  std::wstring mutablePassword = password;
  USER_INFO_1 info{};
  info.usri1_name = mutableName.data();
  info.usri1_password = mutablePassword.data();
  info.usri1_priv = USER_PRIV_USER;
  info.usri1_flags = UF_SCRIPT | UF_DONT_EXPIRE_PASSWD;
  return NetUserAdd(nullptr, 1, reinterpret_cast<BYTE*>(&info), nullptr);
}

template <typename Info>
NET_API_STATUS Set(DWORD level, Info info) {
  return NetUserSetInfo(nullptr, L"kiosk", level, reinterpret_cast<BYTE*>(&info), nullptr);
}

TEST_F(SimComputer, UsersFollowTheirCalls) {
  wchar_t text[] = L"new";
  EXPECT_EQ(Add(L"Kiosk", L"old"), static_cast<DWORD>(NERR_Success));
  EXPECT_EQ(Add(L"KIOSK", L"x"), static_cast<DWORD>(NERR_UserExists));
  EXPECT_EQ(sim::AccountPassword(L"kiosk"), L"old");
  EXPECT_EQ(Set(1003, USER_INFO_1003{text}) + Set(1008, USER_INFO_1008{0x10041}) + Set(1011, USER_INFO_1011{text}), 0U);
  const sim::User user = sim::FindUser(L"Kiosk").value();
  EXPECT_EQ(user.password + user.fullName, L"newnew");
  EXPECT_EQ(user.flags, 0x10041U | UF_NORMAL_ACCOUNT);
  BYTE* buffer = nullptr;
  ASSERT_EQ(NetUserGetInfo(nullptr, L"KIOSK", 23, &buffer), 0U);
  EXPECT_EQ(kiosk::win32::SidText(reinterpret_cast<USER_INFO_23*>(buffer)->usri23_user_sid), user.sid);
  EXPECT_EQ(sim::OpenNetBuffers(), 1);
  NetApiBufferFree(buffer);
  ASSERT_EQ(NetUserGetInfo(nullptr, L"Kiosk", 3, &buffer), 0U);
  EXPECT_LT(reinterpret_cast<USER_INFO_3*>(buffer)->usri3_password_age, 60U);
  EXPECT_EQ(reinterpret_cast<USER_INFO_3*>(buffer)->usri3_last_logon, 0U);
  NetApiBufferFree(buffer);
  EXPECT_EQ(NetUserDel(nullptr, L"kiosk"), 0U);
  EXPECT_EQ(NetUserDel(nullptr, L"Kiosk"), static_cast<DWORD>(NERR_UserNotFound));
  EXPECT_EQ(NetUserGetInfo(nullptr, L"Kiosk", 23, &buffer), static_cast<DWORD>(NERR_UserNotFound));
  Add(L"Kiosk", L"");
  EXPECT_NE(sim::FindUser(L"Kiosk")->sid, user.sid) << "a number is given once";
  const sim::CatchViolations violations;
  NetUserGetInfo(nullptr, L"Kiosk", 1, &buffer);
  Set(1008, USER_INFO_1008{UF_DONT_EXPIRE_PASSWD});
  EXPECT_EQ(sim::CatchViolations::Take(),
            "NetUserGetInfo: level 1 of a user of this machine is not simulated\n"
            "NetUserSetInfo: flags 0x10000 without UF_SCRIPT\n");
}

TEST_F(SimComputer, GroupsAreFoundByTheirLocalNameAlone) {
  const std::wstring sid = sim::AddUser(L"Kiosk");
  const kiosk::win32::LocalMemory member = kiosk::win32::ParseSid(sid.c_str());
  LOCALGROUP_MEMBERS_INFO_0 info{member.Get()};
  auto* data = reinterpret_cast<BYTE*>(&info);
  sim::SetGroupLanguage(L"de");
  EXPECT_EQ(NetLocalGroupAddMembers(nullptr, L"Users", 0, data, 1), static_cast<DWORD>(NERR_GroupNotFound));
  EXPECT_EQ(NetLocalGroupAddMembers(nullptr, L"Benutzer", 0, data, 1), 0U);
  EXPECT_EQ(NetLocalGroupAddMembers(nullptr, L"Benutzer", 0, data, 1), static_cast<DWORD>(ERROR_MEMBER_IN_ALIAS));
  EXPECT_EQ(sim::GroupMembers(kUsers), std::vector<std::wstring>{sid});
  EXPECT_EQ(NetLocalGroupDelMembers(nullptr, L"benutzer", 0, data, 1), 0U);
  EXPECT_EQ(NetLocalGroupDelMembers(nullptr, L"Benutzer", 0, data, 1), static_cast<DWORD>(ERROR_MEMBER_NOT_IN_ALIAS));
  sim::RemoveUser(L"Kiosk");
  EXPECT_EQ(NetLocalGroupAddMembers(nullptr, L"Benutzer", 0, data, 1), static_cast<DWORD>(ERROR_NO_SUCH_MEMBER));

  wchar_t name[32];
  wchar_t domain[32];
  SID_NAME_USE use{};
  const auto lookUp = [&](const wchar_t* text, DWORD room) {
    DWORD domainSize = 32;
    const kiosk::win32::LocalMemory group = kiosk::win32::ParseSid(text);
    const BOOL found = LookupAccountSidW(nullptr, group.Get(), name, &room, domain, &domainSize, &use);
    return found != FALSE ? 0 : GetLastError();
  };
  EXPECT_EQ(lookUp(kUsers, 9), 0U);
  EXPECT_EQ(lookUp(kUsers, 8), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
  EXPECT_EQ(lookUp(L"S-1-5-32-578", 32), static_cast<DWORD>(ERROR_NONE_MAPPED));
}

TEST_F(SimComputer, ASecretAsksForItsAccessAndIsWiped) {
  wchar_t nameText[] = L"DefaultPassword";
  wchar_t secretText[] = L"pass";
  LSA_UNICODE_STRING name{30, 32, nameText};
  LSA_UNICODE_STRING secret{8, 10, secretText};
  LSA_UNICODE_STRING* data = nullptr;
  LSA_OBJECT_ATTRIBUTES attributes{};
  LSA_HANDLE writes = nullptr;
  LSA_HANDLE reads = nullptr;
  LsaOpenPolicy(nullptr, &attributes, POLICY_CREATE_SECRET, &writes);
  LsaOpenPolicy(nullptr, &attributes, POLICY_GET_PRIVATE_INFORMATION, &reads);
  EXPECT_EQ(LsaNtStatusToWinError(LsaStorePrivateData(writes, &name, nullptr)), ERROR_FILE_NOT_FOUND);
  EXPECT_EQ(LsaRetrievePrivateData(reads, &name, &data), static_cast<NTSTATUS>(0xC0000034));
  EXPECT_EQ(LsaNtStatusToWinError(LsaStorePrivateData(reads, &name, &secret)), ERROR_ACCESS_DENIED);
  EXPECT_EQ(LsaRetrievePrivateData(writes, &name, &data), static_cast<NTSTATUS>(0xC0000022));
  EXPECT_EQ(LsaStorePrivateData(writes, &name, &secret), 0);
  ASSERT_EQ(LsaRetrievePrivateData(reads, &name, &data), 0);
  EXPECT_EQ(std::wstring(data->Buffer, data->Length / 2U), L"pass");
  {
    const sim::CatchViolations violations;
    LsaFreeMemory(data);
    EXPECT_EQ(sim::CatchViolations::Take(), "LsaFreeMemory: the secret was not wiped\n");
  }
  LsaClose(writes);
  LsaClose(reads);
}

TEST_F(SimComputer, AHiveKeepsWhatWasWrittenAndAProfileGoesWhenNobodyUsesIt) {
  const std::string before = sim::DumpMachine();
  const std::wstring sid = sim::AddUser(L"Kiosk");
  wchar_t path[260];
  ASSERT_EQ(CreateProfile(sid.c_str(), L"Kiosk", path, 260), S_OK);
  EXPECT_EQ(CreateProfile(sid.c_str(), L"Kiosk", path, 260), static_cast<HRESULT>(0x800700B7));
  EXPECT_EQ(sim::ProfileFolder(sid), path);
  const std::wstring file = std::wstring(path) + L"\\NTUSER.DAT";
  EXPECT_EQ(RegLoadKeyW(HKEY_USERS, L"Test", file.c_str()), ERROR_PRIVILEGE_NOT_HELD);
  EXPECT_TRUE(kiosk::win32::EnablePrivilege(SE_BACKUP_NAME) && kiosk::win32::EnablePrivilege(SE_RESTORE_NAME));
  EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, L"Test"), ERROR_FILE_NOT_FOUND);
  ASSERT_EQ(RegLoadKeyW(HKEY_USERS, L"Test", file.c_str()), ERROR_SUCCESS);
  EXPECT_EQ(RegLoadKeyW(HKEY_USERS, L"Other", file.c_str()), ERROR_SHARING_VIOLATION);
  kiosk::win32::RegistryKey key;
  RegCreateKeyW(HKEY_USERS, L"Test\\Software\\A", key.Put());
  RegSetValueExW(key.Get(), L"value", 0, REG_SZ, reinterpret_cast<const BYTE*>(L"x"), 4);
  EXPECT_EQ(RegUnLoadKeyW(HKEY_USERS, L"Test"), ERROR_ACCESS_DENIED) << "a key of it is open";
  key.Reset();
  ASSERT_EQ(RegUnLoadKeyW(HKEY_USERS, L"Test"), ERROR_SUCCESS);

  const DWORD session = sim::SignIn(L"kiosk");
  EXPECT_EQ(session, 1U);
  DWORD size = 0;
  EXPECT_EQ(
      RegGetValueW(HKEY_USERS, (sid + L"\\Software\\A").c_str(), L"value", RRF_RT_REG_SZ, nullptr, nullptr, &size),
      ERROR_SUCCESS);
  EXPECT_FALSE(DeleteProfileW(sid.c_str(), nullptr, nullptr));
  sim::SignOut(session);
  sim::KeepProfilesBusy(1);
  EXPECT_FALSE(DeleteProfileW(sid.c_str(), nullptr, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_TRUE(DeleteProfileW(sid.c_str(), nullptr, nullptr)) << GetLastError();
  EXPECT_FALSE(DeleteProfileW(sid.c_str(), nullptr, nullptr));
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
  sim::RemoveUser(L"Kiosk");
  EXPECT_EQ(sim::DumpMachine(), before);
}

std::set<DWORD> SessionIds() {
  WTS_SESSION_INFOW* sessions = nullptr;
  DWORD count = 0;
  std::set<DWORD> ids;
  EXPECT_TRUE(WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &sessions, &count));
  for (DWORD i = 0; i < count; ++i) {
    ids.insert(sessions[i].SessionId);
  }
  WTSFreeMemory(sessions);
  return ids;
}

std::vector<std::pair<DWORD, DWORD>> events;

TEST_F(SimComputer, SessionsComeAndGoAndTheServiceHears) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 3, 29));
  const sim::ServiceHost host;
  const auto handler = [](DWORD, DWORD event, void* data, void*) -> DWORD {
    events.emplace_back(event, static_cast<WTSSESSION_NOTIFICATION*>(data)->dwSessionId);
    return 0;
  };
  SERVICE_STATUS_HANDLE status = RegisterServiceCtrlHandlerExW(L"Test", handler, nullptr);
  SERVICE_STATUS running{SERVICE_WIN32_OWN_PROCESS, SERVICE_RUNNING, SERVICE_ACCEPT_SESSIONCHANGE, 0, 0, 0, 0};
  SetServiceStatus(status, &running);
  sim::AddUser(L"Kiosk");
  sim::AddUser(L"Boss");
  EXPECT_EQ(sim::SignIn(L"Kiosk") * 10 + sim::SignIn(L"Boss"), 12U);
  EXPECT_EQ(sim::SignIn(L"Nobody"), 0U);
  sim::MakeStubborn(1, 5'000);
  EXPECT_TRUE(WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, 1, FALSE));
  EXPECT_TRUE(WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, 2, FALSE));
  EXPECT_FALSE(WTSLogoffSession(WTS_CURRENT_SERVER_HANDLE, 3, FALSE));
  EXPECT_EQ(SessionIds(), (std::set<DWORD>{0, 1, 65536}));
  clock.RunUntil(5'001);
  EXPECT_EQ(SessionIds(), (std::set<DWORD>{0, 65536}));
  EXPECT_EQ(events, (std::vector<std::pair<DWORD, DWORD>>{{5, 1}, {5, 2}, {6, 2}, {6, 1}}));
}

TEST_F(SimComputer, ARestartSignsInWhomWinlogonNamesWithTheRightPassword) {
  using kiosk::test::SetString;
  sim::VirtualClock clock(sim::FileTimeOf(2026, 3, 29));
  sim::AddUser(L"Kiosk", L"right");
  SetString(kWinlogon, L"AutoAdminLogon", L"1");
  SetString(kWinlogon, L"DefaultUserName", L"KIOSK");
  EXPECT_EQ(sim::RestartComputer(), 0U);
  sim::SetSecret(L"DefaultPassword", L"wrong");
  EXPECT_EQ(sim::RestartComputer(), 0U);
  sim::SetSecret(L"DefaultPassword", L"right");
  clock.RunFor(1'000);
  EXPECT_EQ(sim::RestartComputer(), 1U);
  EXPECT_LT(GetTickCount64(), 1'000U);
  EXPECT_EQ(sim::SessionOf(sim::FindUser(L"Kiosk")->sid), 1U);
  SetString(kWinlogon, L"AutoAdminLogon", L"0");
  EXPECT_EQ(sim::RestartComputer(), 0U);
  EXPECT_EQ(SessionIds(), (std::set<DWORD>{0, 65536}));
}

TEST_F(SimComputer, ACallerIsWhoItWasDeclaredToBe) {
  sim::AddUser(L"Kiosk");
  const std::wstring kiosk = sim::FindUser(L"Kiosk")->sid;
  kiosk::test::SetString(kiosk::state::kStateKey, L"AccountSid", kiosk);
  sim::SetSession(4, L"Kiosk", sim::ComputerName());
  constexpr wchar_t kName[] = L"\\\\.\\pipe\\NorvaneKioskTest";
  const kiosk::win32::FileHandle server(CreateNamedPipeW(kName, PIPE_ACCESS_DUPLEX, 0, 1, 64, 64, 0, nullptr));
  const kiosk::win32::FileHandle client(CreateFileW(kName, GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
  char byte = 'x';
  DWORD count = 0;
  ASSERT_TRUE(WriteFile(client.Get(), &byte, 1, &count, nullptr) && ReadFile(server.Get(), &byte, 1, &count, nullptr));
  const std::tuple<sim::PipeCaller, bool, bool, bool, DWORD> cases[] = {
      {{L"Kiosk"}, false, true, true, 4},
      {{sim::kSystemSid, false, 0}, true, false, false, 0},
      {{L"S-1-5-21-1-2-3-500", true, 2}, false, true, false, 2},
      {{L"S-1-5-21-1-2-3-500", false, 0}, false, false, false, 0}};
  for (const auto& each : cases) {
    sim::SetPipeCaller(std::get<0>(each));
    sim::SetPipeCaller({L"S-1-5-7"}, 1);  // another process
    kiosk::pipe::CallerRecord caller;
    EXPECT_EQ(kiosk::pipe::IdentifyCaller(server.Get(), caller), "");
    EXPECT_EQ(std::tie(caller.isSystem, caller.isInteractive, caller.isKioskAccount, caller.sessionId),
              std::tie(std::get<1>(each), std::get<2>(each), std::get<3>(each), std::get<4>(each)));
  }
}

}  // namespace
