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
#include "state/kiosk_state.h"
#include "tests/support/fixture.h"
#include "tools/kioskctl/commands.h"
#include "win32/program_path.h"
#include "win32/thread.h"

#include <array>
#include <optional>

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
  for (const UINT type : {UINT{DRIVE_FIXED}, UINT{DRIVE_REMOTE}}) {
    FakeService service({{"{\"ok\":false,\"error\":\"caller_refused\"}\n"}});
    sim::SetDriveType(drive, type);
    {
      const FileHandle errors(CreateFileW(L"C:\\errors.txt", GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
      const HANDLE before = GetStdHandle(STD_ERROR_HANDLE);
      SetStdHandle(STD_ERROR_HANDLE, errors.Get());
      EXPECT_EQ(kioskctl::Status({}, {"status"}), kioskctl::kServiceError);
      SetStdHandle(STD_ERROR_HANDLE, before);
    }
    const bool told =
        test::ReadWholeFile(L"C:\\errors.txt").find("copy it to this computer first") != std::string::npos;
    EXPECT_EQ(told, type == DRIVE_REMOTE);
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

}  // namespace
}  // namespace kiosk
