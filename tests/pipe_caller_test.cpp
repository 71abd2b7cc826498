// Who calls, and what each kind of caller may do.
#include "account/kiosk_restart.h"
#include "account/unlock_token.h"
#include "enrolment/pairing_code.h"
#include "json/serialise.h"
#include "pipe/caller.h"
#include "pipe/dispatch.h"
#include "pipe/service_signer.h"
#include "sim/accounts.h"
#include "sim/callers.h"
#include "sim/clock.h"
#include "sim/leases.h"
#include "sim/machine.h"
#include "sim/program_files.h"
#include "sim/sessions.h"
#include "sim/time_service.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "win32/clock.h"
#include "win32/local_path.h"
#include "win32/program_path.h"
#include "win32/security.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <map>
#include <set>
#include <tuple>

namespace kiosk::pipe {
namespace {

using test::SetDword;
using test::SetString;

// Both ends of a pipe of the test's own; the client is this process.
class Caller : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    constexpr wchar_t kName[] = L"\\\\.\\pipe\\NorvaneKioskTest";
    server_ = win32::FileHandle(CreateNamedPipeW(kName, PIPE_ACCESS_DUPLEX, 0, 1, 512, 512, 0, nullptr));
    ASSERT_TRUE(server_);
    client_ =
        win32::FileHandle(CreateFileW(kName, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    ASSERT_TRUE(client_);
    // Windows lets nobody impersonate before something was read.
    char byte = 'x';
    DWORD count = 0;
    ASSERT_TRUE(WriteFile(client_.Get(), &byte, 1, &count, nullptr) &&
                ReadFile(server_.Get(), &byte, 1, &count, nullptr));
  }

  [[nodiscard]] HANDLE Pipe() const { return server_.Get(); }
  static std::string CheckOf(HANDLE pipe, HANDLE end = nullptr) {
    return CheckCallerProcess(pipe, ClientOf(pipe), {win32::Deadline(15'000), end});
  }
  [[nodiscard]] std::string Check() const { return CheckOf(Pipe()); }
  std::string Identify(CallerRecord& caller) const { return IdentifyCaller(Pipe(), ClientOf(Pipe()), caller); }
  // `leaves`: whether the command leaves something to be done after the reply.
  static std::string Ask(const CallerRecord& caller, std::string_view request, bool leaves = false) {
    command::PostReplyAction afterReply = nullptr;
    std::string reply = json::Serialise(Dispatch(caller, request, afterReply));
    EXPECT_EQ(afterReply != nullptr, leaves) << request;
    return reply;
  }

 private:
  win32::FileHandle server_;
  win32::FileHandle client_;
};

std::string Error(const std::string& code) { return R"({"ok":false,"error":")" + code + "\"}"; }

constexpr char kNotSigned[] =
    "this service is not signed (a dev build): it admits callers only while DevAllowUnsigned=1";

TEST_F(Caller, AnUnsignedServiceAdmitsOnlyWhileADeveloperSaysSo) {
  LearnServiceSigner();
  EXPECT_EQ(test::LogTexts(), std::vector<std::string>{"WARN " + std::string(kNotSigned)});
  SetDword(state::kStateKey, L"DevAllowUnsigned", 2);
  EXPECT_EQ(Check(), "this service is unsigned and DevAllowUnsigned is not set");
  SetString(state::kStateKey, L"DevAllowUnsigned", L"1");
  EXPECT_EQ(Check(), "this service is unsigned and DevAllowUnsigned is not set");
  SetDword(state::kStateKey, L"DevAllowUnsigned", 1);
  EXPECT_EQ(Check(), "");
  EXPECT_EQ(CheckOf(nullptr), "caller process unknown");
}

constexpr wchar_t kClient[] = L"C:\\client.exe";
constexpr wchar_t kOther[] = L"C:\\other.exe";
constexpr char kNotValid[] = " is not validly signed";
constexpr char kUnreadable[] = "this service's own signature cannot be read";

// The service is signed, and so are two programs, of which one is the caller's.
class SignedService : public Caller {
 protected:
  void SetUp() override {
    Caller::SetUp();
    for (const std::wstring& path : {own_, std::wstring(kClient), std::wstring(kOther)}) {
      sim::SignFile(path, L"CN=Norvane");
    }
    test::WriteWholeFile(kClient, "x");
    test::WriteWholeFile(kOther, "x");
    sim::SetProcessImage(kClient);
    SetDword(state::kStateKey, L"DevAllowUnsigned", 1);
  }

  const std::wstring own_ = win32::ProgramPath();
};

TEST_F(SignedService, WhoeverHoldsAProgramFileCostsHisOwnSessionAlone) {
  LearnServiceSigner();
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  sim::SetPipeClientSession(2);
  EXPECT_EQ(Check(), "");
  const win32::KernelHandle ended(CreateEventW(nullptr, TRUE, TRUE, nullptr));
  {
    const wchar_t* const files[] = {kClient, L"C:\\2.exe", L"C:\\3.exe", L"C:\\4.exe"};
    const sim::HeldFile held[] = {sim::HeldFile(files[0]), sim::HeldFile(files[1]), sim::HeldFile(files[2]),
                                  sim::HeldFile(files[3])};
    for (std::size_t i = 0; i < std::size(files); ++i) {
      sim::SetProcessImage(kOther);
      EXPECT_EQ(Check(), "");  // another file of the same session
      sim::SetProcessImage(files[i]);
      EXPECT_EQ(CheckOf(Pipe(), ended.Get()), win32::ToNarrow(files[i]) + kNotValid);  // begins no look
      for (int time = 0; time < 2; ++time) {  // once it was left behind, at once
        EXPECT_EQ(Check(), win32::ToNarrow(files[i]) + kNotValid);
        EXPECT_EQ(clock.Elapsed(), (i + 1) * 15'000U);
      }
      EXPECT_EQ(held[i].Attempts(), 1);
    }
    sim::SetProcessImage(kOther);
    EXPECT_EQ(Check(), "C:\\other.exe" + std::string(kNotValid));  // four were left behind: at once
    EXPECT_EQ(clock.Elapsed(), 60'000U);
    sim::SetPipeClientSession(3);
    EXPECT_EQ(Check(), "");
    sim::SetPipeClientSession(2);
  }
  for (int i = 0; i < 100 && !Check().empty(); ++i) {
    clock.RunFor(1);  // until the look that was left behind has ended
  }
  EXPECT_EQ(Check(), "");
}

TEST_F(SignedService, CallersOfOneSessionWaitForTheirTurn) {
  LearnServiceSigner();
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  std::string refusals[] = {"not asked", "not asked", "not asked"};
  win32::KernelHandle callers[3];
  {
    const sim::HeldFile held(kClient);
    for (int i = 0; i < 3; ++i) {
      callers[i] = win32::StartThread([this, &refusal = refusals[i]]() noexcept { refusal = Check(); });
    }
    clock.RunFor(14'000);
    EXPECT_EQ(held.Attempts(), 1) << "looks at the same time";
  }
  clock.RunFor(500);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(WaitForSingleObject(callers[i].Get(), 0), WAIT_OBJECT_0);
    EXPECT_EQ(refusals[i], "");
  }
}

TEST_F(SignedService, OnlyLocalFilesOfLimitedSizeAreLookedAt) {
  LearnServiceSigner();
  constexpr wchar_t kLarge[] = L"C:\\large.exe";
  sim::SetDriveType(L"R:\\", DRIVE_REMOTE);
  sim::SignFile(kLarge, L"CN=Norvane");
  // To open one of the first three is a violation.
  const std::pair<const wchar_t*, LONGLONG> cases[] = {
      {L"\\\\server\\share\\client.exe", 0}, {L"R:\\client.exe", 0}, {kLarge, 512LL * 1024 * 1024 + 1}};
  for (const auto& [path, size] : cases) {
    sim::SetProcessImage(path);
    if (size != 0) {
      const win32::FileHandle file(CreateFileW(path, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
      LARGE_INTEGER end{};
      end.QuadPart = size;
      ASSERT_TRUE(SetFilePointerEx(file.Get(), end, nullptr, FILE_BEGIN) && SetEndOfFile(file.Get()));
    }
    EXPECT_EQ(Check(), win32::ToNarrow(path) + kNotValid);
  }
  DeleteFileW(kLarge);
  constexpr wchar_t kVolume[] = L"\\\\?\\Volume{00000000-0000-0000-0000-000000000001}\\";
  const std::pair<UINT, bool> types[] = {{DRIVE_UNKNOWN, false}, {DRIVE_NO_ROOT_DIR, false}, {DRIVE_REMOVABLE, true},
                                         {DRIVE_FIXED, true},    {DRIVE_REMOTE, false},      {DRIVE_CDROM, false},
                                         {DRIVE_RAMDISK, true}};
  for (const auto& [type, local] : types) {
    sim::SetDriveType(L"R:\\", type);
    sim::SetDriveType(kVolume, type);
    EXPECT_EQ(win32::IsLocalPath(L"R:\\folder\\client.exe"), local) << type;
    EXPECT_EQ(win32::IsLocalPath(std::wstring(kVolume) + L"client.exe"), local) << type;
  }
  for (const wchar_t* path : {L"", L"C:", L"C:client.exe", L"\\\\?\\UNC\\server\\share\\client.exe", L"\\\\.\\C:\\x"}) {
    EXPECT_FALSE(win32::IsLocalPath(path)) << win32::ToNarrow(path);
  }
}

TEST_F(SignedService, NobodyIsAdmittedWhileItsOwnFileIsHeld) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  {
    const sim::HeldFile held(own_);
    LearnServiceSigner();
    EXPECT_EQ(clock.Elapsed(), 6'000U);
    EXPECT_EQ(Check(), kUnreadable);
    clock.RunFor(60'000);
    EXPECT_EQ(held.Attempts(), 1);
  }
  clock.RunFor(1);
  EXPECT_EQ(Check(), "");
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{"WARN " + std::string(kUnreadable) + ": it admits no callers until it can",
                                      "INFO this service's own signature could be read: it admits callers now"}));
}

TEST_F(SignedService, ItsOwnFileIsLookedAtAgainEveryFiveSeconds) {
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  {
    const sim::HeldFile held(own_, ERROR_SHARING_VIOLATION);
    LearnServiceSigner();
    clock.RunUntil(29'999);
    EXPECT_EQ(held.Attempts(), 6);
    EXPECT_EQ(Check(), kUnreadable);
  }
  clock.RunUntil(30'000);
  EXPECT_EQ(Check(), "");
  EXPECT_EQ(test::CountLogged("WARN " + std::string(kNotSigned)), 0);
}

TEST_F(Caller, AProcessThatBeganAfterTheConnectionIsToldApart) {
  FILETIME created;
  FILETIME unused;
  ASSERT_NE(GetProcessTimes(GetCurrentProcess(), &created, &unused, &unused, &unused), 0);
  const std::uint64_t began = win32::FileTimeValue(created);
  const std::uint64_t later = began + win32::kFileTimeSecond;
  EXPECT_FALSE(BeganBetween(GetCurrentProcess(), began, later));
  EXPECT_TRUE(BeganBetween(GetCurrentProcess(), began - 1, later));
  EXPECT_TRUE(BeganBetween(GetCurrentProcess(), began - 1, began));
  EXPECT_FALSE(BeganBetween(GetCurrentProcess(), began - 2, began - 1));  // the clock was set back since
  EXPECT_TRUE(BeganBetween(nullptr, 0, 0));
}

TEST_F(Caller, EachKindIsToldFromTheOthers) {
  sim::SetPipeClientSession(7);
  SetString(state::kStateKey, L"AccountSid", sim::AddUser(L"Kiosk"));
  sim::SetSession(4, L"Kiosk", sim::ComputerName());
  const struct {
    sim::PipeCaller who;
    bool system, interactive, kiosk;
    DWORD session;
  } cases[] = {{{}, false, true, false, 7},  // as Windows says: this process
               {{L"Kiosk"}, false, true, true, 4},
               {{sim::kSystemSid, false, 0}, true, false, false, 0},
               {{L"S-1-5-21-1-2-3-500", true, 2}, false, true, false, 2},
               {{L"S-1-5-21-1-2-3-500", false, 0}, false, false, false, 0}};
  CallerRecord caller;
  for (const auto& each : cases) {
    if (!each.who.user.empty()) {
      sim::SetPipeCaller(each.who);
    }
    EXPECT_EQ(Identify(caller), "");
    EXPECT_EQ(std::tie(caller.isSystem, caller.isInteractive, caller.isKioskAccount, caller.sessionId),
              std::tie(each.system, each.interactive, each.kiosk, each.session));
  }
  // Another account whose SID begins so; and the thread is itself again.
  sim::SetPipeCaller(cases[1].who);
  SetString(state::kStateKey, L"AccountSid", state::ReadStateString(state::kAccountSid) + L"1");
  EXPECT_EQ(Identify(caller), "");
  EXPECT_FALSE(caller.isKioskAccount);
  win32::KernelHandle token;
  EXPECT_EQ(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.Put()), 0);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_NO_TOKEN));
  EXPECT_EQ(IdentifyCaller(nullptr, ClientOf(Pipe()), caller), "caller cannot be identified (6)");
  EXPECT_EQ(IdentifyCaller(Pipe(), {}, caller), "caller session unknown");
}

constexpr CallerRecord kPerson{.isInteractive = true, .sessionId = 1};
constexpr CallerRecord kService{.sessionId = 0};
constexpr CallerRecord kSystemAtConsole{.isSystem = true, .isInteractive = true, .sessionId = 1};
constexpr CallerRecord kKioskShell{.isInteractive = true, .isKioskAccount = true, .sessionId = 2};

// Every command from every kind of caller: who may send it gets the command's own answer.
TEST_F(Caller, EachCommandHasItsCallers) {
  sim::SetSession(2, L"NORVANEkiosk", sim::ComputerName());
  sim::SetSession(3, L"Anna", sim::ComputerName());
  sim::SetSession(0, L"NorvaneKiosk", sim::ComputerName());
  const std::pair<char, CallerRecord> callers[] = {
      {'k', kKioskShell},
      {'p', kPerson},
      {'i', {.isInteractive = true, .sessionId = 2}},  // in the kiosk's session
      {'s', kSystemAtConsole},
      {'-', kService},
      {'-', {.isInteractive = true, .isKioskAccount = true, .sessionId = 3}},
      {'-', {.isInteractive = true, .isKioskAccount = true, .sessionId = 0}}};
  const std::string kiosk = "the caller is not the kiosk account in its own session";
  const std::string person = "the caller is not an interactive user other than the kiosk account";
  const std::string locked = "terminal settings are not unlocked for session 2";
  const struct {
    std::string command, members, may, answer;
    std::vector<std::string> lines;  // for the kiosk shell, and for each caller who may not
  } cases[] = {
      {"status", "", "kpis-", "", {}},
      {"restart.now", "", "pis", "not_pending", {}},
      {"unlock", R"(,"password":"x")", "k", "not_enrolled", {kiosk}},
      {"session.report", "", "k", "invalid", {kiosk}},
      {"maintenance", R"(,"password":"x","unlockToken":7)", "k", "not_enrolled", {kiosk}},
      {"maintenance", R"(,"password":1,"unlockToken":"x")", "k", "not_unlocked", {kiosk}},
      {"net.set", "", "k", "not_unlocked", {locked, kiosk}},
      {"time.sync", R"(,"unlockToken":null)", "k", "not_unlocked", {locked, kiosk}},
      {"power.get", R"(,"unlockToken":"")", "k", "not_unlocked", {locked, kiosk}},
      {"power.set", R"(,"unlockToken":[])", "k", "not_unlocked", {locked, kiosk}},
      {"proxy.set", R"(,"unlockToken":"00000000000000000000000000000000")", "k", "not_unlocked", {locked, kiosk}},
      {"os.updates", "", "k", "not_unlocked", {locked, kiosk}},
      {"os.install", "", "k", "not_unlocked", {locked, kiosk}},
      // An enrolled terminal answers both without a network, the second one only for the pending code, a trimmed text.
      {"pair.begin", "", "pi", "already_enrolled", {person}},
      {"pair.check", R"(,"code":" \t\u000b12345678\r\n")", "pi", "already_enrolled", {person}},
      {"pair.check", R"(,"code":12345678)", "pi", "unknown_code", {person}},
      {"pair.check", R"(,"code":["12345678"])", "pi", "unknown_code", {person}}};
  const text::Secret unlock = account::NewUnlockToken(2);
  enrolment::SetPendingPairingCode("12345678");
  std::set<std::string> lines;
  for (const auto& each : cases) {
    if (each.command.starts_with("pair")) {
      test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "token", 5);
    }
    for (const auto& [kind, caller] : callers) {
      const bool may = each.may.find(kind) != std::string::npos;
      const std::string reply = Ask(caller, R"({"cmd":")" + each.command + '"' + each.members + "}");
      EXPECT_TRUE(may && each.answer.empty() ? reply.starts_with(R"({"ok":true)")
                                             : reply == Error(may ? each.answer : "not_permitted"))
          << each.command << kind << reply;
      if (!each.lines.empty() && (!may || each.lines.size() > 1)) {
        lines.insert("WARN " + each.command + " refused: " + (may ? each.lines.front() : each.lines.back()));
      }
    }
  }
  std::vector<std::string> said = test::LogTexts();
  std::erase_if(said, [](const std::string& line) { return line.ends_with("not_enrolled"); });  // the command's own
  EXPECT_EQ(std::set<std::string>(said.begin(), said.end()), lines);
}

TEST_F(Caller, TheUnlockedKioskSessionReachesTheTerminalsSettings) {
  sim::SetSession(2, L"NorvaneKiosk", sim::ComputerName());
  sim::timeService.noService.Set(1);
  const text::Secret unlock = account::NewUnlockToken(2);
  for (const auto& [command, answer] :
       std::map<std::string, std::string>{{"net.set", Error("invalid")},
                                          {"proxy.set", Error("invalid")},
                                          {"power.set", Error("not_enrolled")},
                                          {"power.get", R"({"ok":true,)"},
                                          {"os.updates", R"({"ok":true,)"},
                                          {"time.sync", R"({"ok":false,"error":"sync_failed",)"}}) {
    const std::string reply = Ask(kKioskShell, R"({"cmd":")" + command + R"(","unlockToken":")" + unlock.Get() + "\"}");
    EXPECT_TRUE(reply.starts_with(answer)) << command << reply;
  }
}

TEST_F(Caller, ARestartThatIsPendingComesAfterTheReply) {
  account::ScheduleKioskRestart();
  EXPECT_EQ(Ask(kService, R"({"cmd":"restart.now"})"), Error("not_permitted"));
  EXPECT_EQ(Ask(kPerson, R"({"cmd":"restart.now"})", true), "{\"ok\":true}");
  EXPECT_TRUE(account::KioskRestartPending());
  EXPECT_EQ(test::LogTexts().size(), 1U);
  account::CancelKioskRestart();
}

TEST_F(Caller, StatusShowsWhatIsStoredToEverybody) {
  const std::wstring computer = sim::ComputerName();
  sim::SetSession(2, L"norvanekiosk", computer);
  sim::SetSession(3, L"Administrator", computer);
  sim::SetSession(4, L"NorvaneKiosk", L"ELSEWHERE");
  sim::SetSession(0, L"NorvaneKiosk", computer);
  const auto kioskSession = [&](DWORD session) {
    const std::string reply = Ask({.sessionId = session}, "{\"cmd\":\"status\"}");
    EXPECT_NE(reply.find("\"kioskSession\":"), std::string::npos);
    return reply.find("\"kioskSession\":true") != std::string::npos;
  };
  EXPECT_FALSE(kioskSession(2));  // not provisioned yet
  SetDword(state::kStateKey, L"Provisioned", 1);
  EXPECT_TRUE(kioskSession(2));
  for (const DWORD other : {0U, 3U, 4U, 99U}) {
    EXPECT_FALSE(kioskSession(other)) << other;
  }

  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "token", 5);
  SetDword(state::kStateKey, L"Maintenance", 1);
  SetString(state::kStateKey, L"TerminalName", L"\u0141\u00f3d\u017a \u2013 Halle 3 \"A\"");
  SetString(state::kStateKey, L"SignIn", L"{\"microsoft\":false,\"email\":true,\"extraHosts\":[\"a.example\"]}");
  SetString(state::kStateKey, L"LastError", L"check-in: HTTP 500");
  constexpr char kFull[] =
      "{\"ok\":true,\"enrolled\":true,\"provisioned\":true,\"kioskSession\":true,\"maintenance\":true,"
      "\"account\":\"NorvaneKiosk\",\"terminalName\":\"\u0141\u00f3d\u017a \u2013 Halle 3 \\\"A\\\"\","
      "\"signIn\":{\"microsoft\":false,\"email\":true,\"extraHosts\":[\"a.example\"]},\"error\":\"check-in: HTTP "
      "500\"}";
  for (CallerRecord caller : {kPerson, kService, kSystemAtConsole, kKioskShell}) {
    caller.sessionId = 2;
    EXPECT_EQ(Ask(caller, "{\"cmd\":\"status\"}"), kFull);
  }
}

}  // namespace
}  // namespace kiosk::pipe
