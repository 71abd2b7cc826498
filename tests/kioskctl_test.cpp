// The command-line client of the pipe, with a server of the test's own at the other end.
#include "json/parse.h"
#include "json/serialise.h"
#include "pipe/overlapped.h"
#include "pipe/server.h"
#include "service/service_status.h"
#include "sim/clock.h"
#include "sim/faults.h"
#include "sim/program_files.h"
#include "sim/service_control.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "tools/kioskctl/commands.h"
#include "tools/kioskctl/log_files.h"
#include "tools/kioskctl/redact.h"
#include "tools/kioskctl/support_facts.h"
#include "win32/program_path.h"
#include "win32/thread.h"

#include <array>
#include <cstring>
#include <optional>

namespace kioskctl {
extern const char kProgram[] = "kioskctl";
}  // namespace kioskctl

namespace kiosk {
namespace {

using kioskctl::Outcome;
using win32::FileHandle;

FileHandle MakePipe() {
  return FileHandle(
      CreateNamedPipeW(pipe::kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED, 0, 255, 8192, 8192, 0, nullptr));
}

// Serves the pipe from its construction on: one client for each reply, which comes so many milliseconds after the
// request.
class FakeService {
 public:
  struct Step {
    std::string reply;
    DWORD after = 0;
  };

  explicit FakeService(std::vector<Step> steps) : steps_(std::move(steps)), next_(MakePipe()) {
    thread_ = win32::StartThread([this]() noexcept { Run(); });
  }
  FakeService(const FakeService&) = delete;
  FakeService& operator=(const FakeService&) = delete;
  ~FakeService() { EXPECT_EQ(WaitForSingleObject(thread_.Get(), 10'000), WAIT_OBJECT_0); }

  // What clients have sent, once all have gone.
  std::string Received() {
    WaitForSingleObject(thread_.Get(), 10'000);
    return received_;
  }

 private:
  void Run() {
    pipe::OverlappedIo io;
    for (const Step& step : steps_) {
      const FileHandle pipe = std::move(next_);
      const HANDLE end = pipe.Get();
      static_cast<void>(io.Finish(end, ConnectNamedPipe(end, io.Begin()), INFINITE));
      next_ = MakePipe();
      std::array<char, 1024> room{};
      const auto read = [&] {
        return io.Finish(end, ReadFile(end, room.data(), room.size(), nullptr, io.Begin()), INFINITE);
      };
      pipe::IoResult request = read();
      received_.append(room.data(), request.bytes);
      if (request.bytes != 0) {
        Sleep(step.after);
        const auto size = static_cast<DWORD>(step.reply.size());
        static_cast<void>(io.Finish(end, WriteFile(end, step.reply.data(), size, nullptr, io.Begin()), INFINITE));
        static_cast<void>(read());  // until the client has gone
      }
    }
  }

  std::vector<Step> steps_;
  FileHandle next_;
  std::string received_;
  win32::KernelHandle thread_;
};

// What `act` prints to standard output or standard error.
template <typename Act>
std::string Printed(DWORD stream, Act act) {
  constexpr wchar_t kFile[] = L"C:\\printed.txt";
  {
    const FileHandle file(CreateFileW(kFile, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    const HANDLE before = GetStdHandle(stream);
    SetStdHandle(stream, file.Get());
    act();
    SetStdHandle(stream, before);
  }
  return test::ReadWholeFile(kFile);
}

class KioskCtl : public test::CleanMachine {
 protected:
  void HostService() {
    host_.emplace();
    service::RegisterControls(L"NorvaneKiosk", [](DWORD, DWORD, void*, void*) WINAPI -> DWORD { return NO_ERROR; });
  }
  void RunService() {
    HostService();
    service::ReportRunning();
  }

 private:
  std::optional<sim::ServiceHost> host_;
};

TEST_F(KioskCtl, SendsNothingToAPipeWhileTheServiceDoesNotRun) {
  const auto ask = [](std::string& received) {
    FakeService service({{"{\"ok\":true}\n"}});
    const Outcome outcome = kioskctl::Ask(text::Secret(R"({"cmd":"status"})")).outcome;
    received = service.Received();
    return outcome;
  };
  std::string received;
  EXPECT_EQ(ask(received), Outcome::kImpostor) << "the service is not installed";
  EXPECT_EQ(received, "");
  HostService();
  EXPECT_EQ(ask(received), Outcome::kImpostor) << "the service is stopped";
  EXPECT_EQ(received, "");
  service::ReportRunning();
  EXPECT_EQ(ask(received), Outcome::kReply);
  EXPECT_EQ(received, "{\"cmd\":\"status\"}\n");
}

TEST_F(KioskCtl, WaitsForAServiceThatIsJustStarting) {
  HostService();
  service::ReportStartPending();
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  std::optional<FakeService> service;
  clock.At(40'000, [] { service::ReportRunning(); });  // it had a removal to finish
  clock.At(42'000, [&] {
    clock.SetGrace(100);
    service.emplace(std::vector<FakeService::Step>{{"{\"ok\":true}\n"}});
  });
  EXPECT_EQ(kioskctl::Ask(text::Secret(R"({"cmd":"status"})")).outcome, Outcome::kReply);
  service.reset();
  clock.SetGrace(0);
  EXPECT_EQ(kioskctl::Ask(text::Secret(R"({"cmd":"status"})")).error, DWORD{ERROR_FILE_NOT_FOUND}) << "runs, no pipe";
  service::ReportStartPending();
  EXPECT_NE(Printed(STD_ERROR_HANDLE, [] { kioskctl::Status({}, {"status"}); }).find("is still starting"),
            std::string::npos);
  const std::uint64_t before = clock.Elapsed();
  EXPECT_EQ(kioskctl::StatusFacts(), "not asked: the service is still starting\n");
  EXPECT_EQ(clock.Elapsed(), before) << "a bundle has a minute for all";
}

TEST_F(KioskCtl, PairWaitsForAPairingThatTakesMinutes) {
  RunService();
  sim::VirtualClock clock(sim::FileTimeOf(2026, 10, 15));
  clock.SetGrace(100);
  FakeService service({{"{\"ok\":true,\"code\":\"K7WQ2MZP\",\"expiresInSeconds\":900}\n", 100'000},
                       {"{\"ok\":true,\"paired\":true,\"provisioned\":true}\n", 540'000}});
  EXPECT_EQ(kioskctl::Pair({}, {"pair"}), kioskctl::kDone);
  EXPECT_EQ(service.Received(), "{\"cmd\":\"pair.begin\"}\n{\"cmd\":\"pair.check\",\"code\":\"K7WQ2MZP\"}\n");
}

TEST_F(KioskCtl, SaysThatAProgramOfAShareIsNotAdmitted) {
  RunService();
  const std::wstring drive = win32::ProgramPath().substr(0, 3);
  for (const UINT type : {UINT{DRIVE_REMOTE}, UINT{DRIVE_FIXED}}) {
    FakeService service({{"{\"ok\":false,\"error\":\"caller_refused\"}\n"}});
    sim::SetDriveType(drive, type);
    const std::string errors =
        Printed(STD_ERROR_HANDLE, [] { EXPECT_EQ(kioskctl::Status({}, {"status"}), kioskctl::kServiceError); });
    EXPECT_EQ(errors.find("copy it to this computer first") != std::string::npos, type == DRIVE_REMOTE);
  }
}

TEST_F(KioskCtl, RemovedMeansThatNothingIsLeftForCertain) {
  const kioskctl::ServiceState gone{.error = ERROR_SERVICE_DOES_NOT_EXIST};
  EXPECT_EQ(kioskctl::WhatIsLeft(gone), "") << "never installed";
  EXPECT_EQ(kioskctl::Removed({}, {"removed"}), kioskctl::kDone);
  ASSERT_FALSE(state::ProtectStateKey().what);
  state::WriteStateString(state::kAuthBaseUrl, L"http://portal.test");
  EXPECT_EQ(kioskctl::WhatIsLeft(gone), "") << "what an administrator set may stay";
  for (const state::StateValue* value : {&state::kAccountSid, &state::kTeardownPending}) {
    test::SetDword(state::kStateKey, value->name, 0);  // whatever it says
    EXPECT_NE(kioskctl::WhatIsLeft(gone).find("account is still there"), std::string::npos);
    EXPECT_EQ(kioskctl::Removed({}, {"removed"}), kioskctl::kServiceError);
    state::DeleteStateValue(*value);
    const sim::FailingReads failing(value->name, ERROR_NO_SYSTEM_RESOURCES);
    EXPECT_NE(kioskctl::WhatIsLeft(gone).find("(error 1450)"), std::string::npos);
  }
  for (const DWORD reported : {DWORD{SERVICE_STOPPED}, DWORD{SERVICE_RUNNING}}) {
    EXPECT_NE(kioskctl::WhatIsLeft({.known = true, .state = reported}).find("still there"), std::string::npos);
  }
  EXPECT_NE(kioskctl::WhatIsLeft({.error = ERROR_ACCESS_DENIED}).find("(error 5)"), std::string::npos);
  EXPECT_EQ(kioskctl::WhatIsLeft(gone), "");
}

TEST_F(KioskCtl, NamesShowWithoutWhatCommandsAConsole) {
  const std::optional<json::Value> reply = json::Parse(
      "{\"ok\":true,\"size\":7,\"none\":null,\"terminalName\":\"a\\u001b[2J\\u009b\\nb\",\"list\":[\"\\u007f\",{\"x\":"
      "\"\\r\"}]}");
  ASSERT_TRUE(reply);
  EXPECT_EQ(json::Serialise(kioskctl::Shown(*reply)),
            "{\"ok\":true,\"size\":7,\"none\":null,\"terminalName\":\"a [2J   b\",\"list\":[\" \",{\"x\":\" \"}]}");
}

TEST_F(KioskCtl, JsonIsAsciiSoThatNoCodePageSpoilsIt) {
  json::Value value = json::Value::Object();
  value.Set("name", "Łódź \xf0\x9f\x98\x80\x7f\n").Set("ascii", "a~\\");
  EXPECT_EQ(Printed(STD_OUTPUT_HANDLE, [&] { kioskctl::PrintJson(value); }),
            "{\"name\":\"\\u0141\\u00f3d\\u017a \\ud83d\\ude00\\u007f\\n\",\"ascii\":\"a~\\\\\"}\n");
}

const std::wstring kLogs = state::kLogRoot;

void WriteLog(const std::wstring& day, const std::wstring& name, std::string_view content) {
  std::wstring path = L"C:\\ProgramData";
  for (const std::wstring& part : {std::wstring(L"Norvane"), std::wstring(L"Tessaly"), std::wstring(L"Logs"), day}) {
    CreateDirectoryW((path += L"\\" + part).c_str(), nullptr);
  }
  test::WriteWholeFile(path + L"\\" + name, content);
}

TEST_F(KioskCtl, LogFollowsDaysAndFilesThatBeginLater) {
  kioskctl::LogReader none;
  EXPECT_EQ(none.NewLines(), "");
  WriteLog(L"2026-11-20", L"Kiosk_080000.log", "[08:00:00.000] INFO yesterday\n");
  WriteLog(L"2026-11-21", L"Kiosk_080000.log", "[08:00:00.000] one\n[08:00:05.000] four\n[07:00:00.000] five\n[08:0");
  WriteLog(L"2026-11-21", L"Kiosk_080001.log", "[08:00:01.000] two\n[08:00:02.000] three\n");
  WriteLog(L"2026-11-21", L"Other_080000.log", "[08:00:00.000] another program's\n");
  WriteLog(L"Archive", L"Kiosk_090000.log", "[09:00:00.000] archived\n");
  kioskctl::LogReader reader;
  EXPECT_EQ(reader.NewLines(),
            "[08:00:00.000] one\n[08:00:01.000] two\n[08:00:02.000] three\n[08:00:05.000] four\n[07:00:00.000] five\n")
      << "of the last day, those of two files by their times, those of one file in their order";
  EXPECT_EQ(reader.NewLines(), "");
  WriteLog(L"2026-11-21", L"Kiosk_080000.log",
           "[08:00:00.000] one\n[08:00:05.000] four\n[07:00:00.000] five\n[08:00:06.000] six\n");
  EXPECT_EQ(reader.NewLines(), "[08:00:06.000] six\n") << "whole, once its end is there";
  WriteLog(L"2026-11-21", L"Kiosk_081000.log", "[08:10:00.000] a new start\n");
  EXPECT_EQ(reader.NewLines(), "[08:10:00.000] a new start\n");
  WriteLog(L"2026-11-22", L"Kiosk_000000.log", "[00:00:00.000] midnight\n");
  WriteLog(L"2026-11-20", L"Kiosk_235959.log", "[23:59:59.000] too old\n");
  EXPECT_EQ(reader.NewLines(), "[00:00:00.000] midnight\n");
  test::RemoveTree(kLogs);
  EXPECT_EQ(reader.NewLines(), "");
}

TEST_F(KioskCtl, LogsOfABundleAreCutAtALine) {
  WriteLog(L"2026-11-21", L"Kiosk_080000.log", "first line\nsecond line\nthird");
  const std::wstring path = kLogs + L"\\2026-11-21\\Kiosk_080000.log";
  std::string text;
  std::uint64_t offset = 0;
  ASSERT_TRUE(kioskctl::ReadLog(path, offset, 16, text));
  EXPECT_EQ(text, "third");
  EXPECT_EQ(offset, 28U);
  EXPECT_FALSE(kioskctl::ReadLog(path + L"x", offset, 20, text));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
}

std::string EventLine(WORD type, bool ofSystem, const std::vector<std::wstring>& sourceComputerAndTexts) {
  EVENTLOGRECORD record{};
  record.EventID = 0x8000'0432;
  record.EventType = type;
  record.NumStrings = static_cast<WORD>(sourceComputerAndTexts.size() - 2);
  std::wstring texts;
  for (std::size_t i = 0; i < sourceComputerAndTexts.size(); ++i) {
    if (i == 2) {
      record.StringOffset = static_cast<DWORD>(sizeof(record) + texts.size() * sizeof(wchar_t));
    }
    texts.append(sourceComputerAndTexts[i].c_str(), sourceComputerAndTexts[i].size() + 1);
  }
  std::vector<std::uint32_t> room((sizeof(record) + texts.size() * sizeof(wchar_t)) / sizeof(std::uint32_t) + 1);
  std::memcpy(room.data(), &record, sizeof(record));
  std::memcpy(reinterpret_cast<char*>(room.data()) + sizeof(record), texts.data(), texts.size() * sizeof(wchar_t));
  return kioskctl::EventText(*reinterpret_cast<const EVENTLOGRECORD*>(room.data()), ofSystem);
}

TEST_F(KioskCtl, EventsOfABundleAreThoseOfTheServiceAndOfTheSystemsLife) {
  const std::vector<std::wstring> restart{
      L"User32", L"PC", L"C:\\Windows\\x.exe (PC)", L"PC\\anna", L"NT AUTHORITY\\SYSTEM", L"a\nb"};
  EXPECT_EQ(EventLine(EVENTLOG_INFORMATION_TYPE, true, restart),
            "User32 1074 | C:\\Windows\\x.exe (PC) | [account] | NT AUTHORITY\\SYSTEM | a b");
  EXPECT_EQ(EventLine(EVENTLOG_INFORMATION_TYPE, false, restart), "");
  EXPECT_EQ(EventLine(EVENTLOG_INFORMATION_TYPE, false, {L"SCM", L"PC", L"Norvane (Tessaly) Kiosk", L"1"}),
            "SCM 1074 | Norvane (Tessaly) Kiosk | 1");
  EXPECT_EQ(EventLine(EVENTLOG_ERROR_TYPE, true, {L"disk", L"PC"}), "disk 1074");
  EXPECT_EQ(EventLine(EVENTLOG_ERROR_TYPE, false, {L"Word", L"PC"}), "");
  EXPECT_EQ(EventLine(EVENTLOG_WARNING_TYPE, true, {L"DNS", L"PC"}), "");
}

TEST_F(KioskCtl, RedactedTextNamesNobody) {
  const std::vector<std::wstring> names{L"Łukasz Nowak", L"anna-b", L"nowak"};
  const struct {
    const char* text;
    const char* expected;
  } cases[] = {
      {"session of PC\\ANNA-B, Nowak's, nowaks", "session of PC\\[user2], [user3]'s, nowaks"},
      {"łukasz nowak was here\nand nowak\n", "[user1] was here\nand [user3]\n"},
      {"anna-b2 panna-b anna-b", "anna-b2 panna-b [user2]"},
      {"C:\\Users\\dora\\x.txt", "C:\\Users\\[user]\\x.txt"},
      {"\"C:\\\\users\\\\Dora D.\\\\x\" c:\\Users\\dora, and", "\"C:\\\\users\\\\[user]\\\\x\" c:\\Users\\[user], and"},
      {"C:\\Users\\NorvaneKiosk.PC\\a C:\\Users\\Public\\b", "C:\\Users\\NorvaneKiosk.PC\\a C:\\Users\\Public\\b"},
      {"https://u:p@portal.test:8443/a/b?token=x&y=z done", "https://[user]@portal.test:8443/a/b?... done"},
      {"C:\\Users\\dora\nhttp://a.test/?q\nemil\n@b", "C:\\Users\\[user]\nhttp://a.test/?...\nemil\n@b"},
      {"http=bob:pw@proxy:8080 mail emil@x.test", "http=[user]@proxy:8080 mail [user]@x.test"},
      {"is it? <?xml version?> \"https://a.test/?q\" \\\\?\\C:\\x",
       "is it? <?xml version?> \"https://a.test/?...\" \\\\?\\C:\\x"},
      {"owner S-1-5-21-1-22-333-1001, S-1-5-18, s-1-12-1-5", "owner S-1-5-21-..., S-1-5-18, s-1-12-1-..."},
      {"@ a @ b", "@ a @ b"},
      {"", ""},
  };
  for (const auto& each : cases) {
    EXPECT_EQ(kioskctl::Redacted(each.text, names), each.expected) << each.text;
  }
}

}  // namespace
}  // namespace kiosk
