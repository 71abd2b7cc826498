// The pipe server over the real pipe: what clients send and how they behave, the limits, the time-outs, the stop.
#include "sim/pipe.h"
#include "account/kiosk_restart.h"
#include "enrolment/pairing_code.h"
#include "pipe/refusal_log.h"
#include "pipe/server.h"
#include "pipe/service_signer.h"
#include "sim/callers.h"
#include "sim/clock.h"
#include "sim/shutdown.h"
#include "sim/threads.h"
#include "tests/support/fixture.h"
#include "tests/support/handle_count.h"
#include "tests/support/pipe_exchange.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <atomic>
#include <optional>
#include <thread>

namespace kiosk::pipe {
namespace {

using test::ConnectToService;
using test::Exchange;
using test::ReceiveLine;
using test::Send;
using win32::FileHandle;

constexpr char kStatus[] =
    "{\"ok\":true,\"enrolled\":false,\"provisioned\":false,\"kioskSession\":false,\"maintenance\":false,"
    "\"account\":\"NorvaneKiosk\",\"terminalName\":\"\","
    "\"signIn\":{\"microsoft\":true,\"email\":true,\"extraHosts\":[]}}\n";
constexpr char kAsk[] = "{\"cmd\":\"status\"}\n";
constexpr char kBadRequest[] = "{\"ok\":false,\"error\":\"bad_request\"}\n";
constexpr char kUnknownCommand[] = "{\"ok\":false,\"error\":\"unknown_command\"}\n";
constexpr char kRefused[] = "{\"ok\":false,\"error\":\"caller_refused\"}\n";
// What a server logs that has nothing to tell.
const std::vector<std::string> kQuiet = {
    "WARN this service is not signed (a dev build): it admits callers only while DevAllowUnsigned=1",
    "INFO listening on \\\\.\\pipe\\NorvaneKiosk"};

class PipeServer : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    test::SetDword(state::kStateKey, L"DevAllowUnsigned", 1);
    ASSERT_TRUE(win32::CreateStopEvent());
    LearnServiceSigner();
  }

  void Serve() {
    server_ = win32::StartThread([]() noexcept { RunPipeServer(); });
    ASSERT_TRUE(server_);
  }
  // The same on a thread that virtual time waits for.
  void ServeVirtually() {
    clock_.emplace(sim::FileTimeOf(2026, 10, 15));
    clock_->SetGrace(20);
    Serve();
  }

  void TearDown() override {
    clock_.reset();
    win32::RequestStop();
    EXPECT_EQ(WaitForSingleObject(server_.Get(), 10'000), WAIT_OBJECT_0);
    EXPECT_TRUE(BecomesIdle());
  }

  static bool BecomesIdle() {
    return test::Becomes([] { return LiveConnections() == 0; });
  }
  static void AwaitLive(long count) {
    while (LiveConnections() != count) {
      SwitchToThread();
    }
  }

  sim::VirtualClock& Clock() { return *clock_; }

 private:
  win32::KernelHandle server_;
  std::optional<sim::VirtualClock> clock_;
};

TEST_F(PipeServer, AnswersEveryShapeOfRequest) {
  Serve();
  const std::string filler(1100, ' ');
  const std::pair<std::vector<std::string>, const char*> cases[] = {
      {{"{\"cmd\":\"status\"}\r\n"}, kStatus},
      {{" \t\v\f\r{\"cmd\":\"status\"}"}, kStatus},
      {{"{\"cmd\":", "\"status\"}"}, kStatus},
      {{filler, "{\"cmd\":\"status\"}"}, kStatus},
      {{"{\"cmd\":\"unknown\",\"cmd\":\"status\"}"}, kStatus},
      {{"{\"cmd\":\"Status\"}"}, kUnknownCommand},
      {{"{\"cmd\":\"status \"}"}, kUnknownCommand},
      {{"{\"cmd\":[\"status\"]}"}, kUnknownCommand},
      {{"\"status\""}, kBadRequest},
      {{"{\"cmd\":\"status\"\n"}, kBadRequest},
      {{"{\"cmd\":\"status\"}\n{\"cmd\":\"status\"}\n"}, kBadRequest},
      {{"{\"cmd\":\"" + std::string(10'000, 'x')}, kBadRequest},
      {{"{\"cmd\":\"" + std::string(7000, 'x') + "\"}"}, kUnknownCommand},
  };
  for (const auto& [pieces, reply] : cases) {
    SCOPED_TRACE(pieces.back().substr(0, 60));
    const FileHandle pipe = ConnectToService();
    for (const std::string& piece : pieces) {
      ASSERT_TRUE(Send(pipe.Get(), piece));
    }
    EXPECT_EQ(ReceiveLine(pipe.Get()), reply);
  }
  // Nothing of this is worth a line.
  EXPECT_EQ(test::LogTexts(), kQuiet);
}

TEST_F(PipeServer, InstancesAreCreatedAsTheyMustBe) {
  Serve();
  EXPECT_EQ(Exchange("{}"), kUnknownCommand);
  EXPECT_EQ(Exchange("{}"), kUnknownCommand);
  const std::vector<sim::PipeCreation> creations = sim::PipeCreations();
  ASSERT_GE(creations.size(), 2U);
  for (const sim::PipeCreation& each : creations) {
    const DWORD first = &each == creations.data() ? FILE_FLAG_FIRST_PIPE_INSTANCE : 0;
    EXPECT_EQ(each.name, kPipeName);
    EXPECT_EQ(each.openMode, PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | first);
    EXPECT_EQ(each.pipeMode, static_cast<DWORD>(PIPE_REJECT_REMOTE_CLIENTS));
    EXPECT_EQ(each.instances, 255U);
    EXPECT_TRUE(each.outSize == 8192 && each.inSize == 8192 && each.timeout == 0);
    EXPECT_NE(each.sddl.find(L"D:P(A;;GA;;;SY)(A;;0x12019b;;;IU)"), std::wstring::npos) << sim::Narrow(each.sddl);
  }
}

TEST_F(PipeServer, ManyAndRudeClientsLeaveNothingBehind) {
  Serve();
  EXPECT_EQ(Exchange("{\"cmd\":\"status\"}"), kStatus);
  ASSERT_TRUE(BecomesIdle());
  const std::ptrdiff_t before = test::HandlesOf(GetCurrentProcessId());
  ASSERT_GT(before, 0);

  for (int i = 0; i < 50; ++i) {
    ConnectToService();                                      // connects and closes
    Send(ConnectToService().Get(), "{\"cmd\":\"sta");        // ends in the middle
    Send(ConnectToService().Get(), "{\"cmd\":\"status\"}");  // never reads the reply
  }
  ASSERT_TRUE(BecomesIdle());
  EXPECT_TRUE(test::Becomes([before] { return test::HandlesOf(GetCurrentProcessId()) <= before; }));

  std::atomic<int> answered{0};
  std::vector<std::thread> clients;
  constexpr int kClients = 30;  // fewer than there is room for
  clients.reserve(kClients);
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&answered] { answered += Exchange("{\"cmd\":\"status\"}\n") == kStatus ? 1 : 0; });
  }
  for (std::thread& client : clients) {
    client.join();
  }
  EXPECT_EQ(answered, kClients);

  EXPECT_EQ(Exchange("{\"cmd\":\"status\"}"), kStatus);
  EXPECT_EQ(test::LogTexts(), kQuiet);
}

TEST_F(PipeServer, NobodyTakesTheNameBetweenTwoConnections) {
  Serve();
  EXPECT_EQ(Exchange("{}"), kUnknownCommand);
  std::atomic<bool> over{false};
  std::atomic<int> taken{0};
  std::thread thief([&] {
    while (!over) {
      const FileHandle pipe(
          CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE, 0, 255, 0, 0, 0, nullptr));
      taken += pipe ? 1 : 0;
    }
  });
  for (int i = 0; i < 200; ++i) {
    ConnectToService();
  }
  over = true;
  thief.join();
  EXPECT_EQ(taken, 0);
}

TEST_F(PipeServer, WaitsWhileAnotherProcessHoldsTheName) {
  FileHandle other(CreateNamedPipeW(kPipeName, PIPE_ACCESS_DUPLEX, 0, 255, 0, 0, 0, nullptr));
  ASSERT_TRUE(other);
  ServeVirtually();
  Clock().RunUntil(3900);
  EXPECT_EQ(test::CountLogged("ERROR cannot create the pipe (5)"), 2);
  other.Reset();
  Clock().RunUntil(4100);
  EXPECT_EQ(test::CountLogged("ERROR cannot create the pipe (5)"), 2);
  EXPECT_EQ(Exchange("{}"), kUnknownCommand);
  EXPECT_NE(sim::PipeCreations()[3].openMode & FILE_FLAG_FIRST_PIPE_INSTANCE, 0U);
}

TEST_F(PipeServer, ARequestHas15Seconds) {
  ServeVirtually();
  const FileHandle silent = ConnectToService();
  const FileHandle slow = ConnectToService();
  const std::string request = "{\"cmd\":\"status\"}";
  for (std::size_t i = 0; i < 15; ++i) {
    ASSERT_TRUE(Send(slow.Get(), request.substr(i, 1)));
    Clock().RunFor(i < 14 ? 1000 : 900);
  }
  EXPECT_EQ(LiveConnections(), 2);  // 14.9 s
  Clock().RunFor(200);
  EXPECT_EQ(LiveConnections(), 1);
  EXPECT_EQ(ReceiveLine(slow.Get()), kBadRequest);  // 15 of its 16 bytes
  EXPECT_EQ(ReceiveLine(silent.Get()), "");
}

TEST_F(PipeServer, AnUnreadReplyHoldsNothingLongerThanItMay) {
  ServeVirtually();
  for (const std::size_t nameLength : {0U, 30'000U}) {  // the reply fits the pipe's buffer, or does not
    test::SetString(state::kStateKey, L"TerminalName", std::wstring(nameLength, L'x'));
    const FileHandle pipe = ConnectToService();
    ASSERT_TRUE(Send(pipe.Get(), "{\"cmd\":\"status\"}\n"));
    Clock().RunFor(4900);
    EXPECT_EQ(LiveConnections(), 1) << nameLength;
    Clock().RunFor(200);
    EXPECT_EQ(LiveConnections(), 0) << nameLength;
  }
  EXPECT_GT(Exchange("{\"cmd\":\"status\"}").size(), 30'000U);
}

TEST_F(PipeServer, ExtraBytesDoNotProlongAConnection) {
  ServeVirtually();
  const FileHandle pipe = ConnectToService();
  ASSERT_TRUE(Send(pipe.Get(), "{}\n"));
  EXPECT_EQ(ReceiveLine(pipe.Get()), kUnknownCommand);
  const int before = sim::OverlappedReads();
  ASSERT_TRUE(Send(pipe.Get(), std::string(8000, ' ')));
  for (int i = 0; i < 6; ++i) {
    Clock().RunFor(900);
    Send(pipe.Get(), "more");
  }
  EXPECT_EQ(LiveConnections(), 0);
  EXPECT_LT(sim::OverlappedReads() - before, 20) << "so many reads for a few kilobytes";
}

TEST_F(PipeServer, AFloodEndsItsOwnConnectionsAlone) {
  ServeVirtually();  // so that nothing ends because the computer is slow
  sim::SetPipeClientSession(1);
  const FileHandle answered = ConnectToService();
  ASSERT_TRUE(Send(answered.Get(), kAsk));
  EXPECT_EQ(ReceiveLine(answered.Get()), kStatus);  // and stays
  // Who does not say what he wants, and who does not take his reply.
  for (const char* sent : {"{\"cmd\":", kAsk}) {
    FileHandle quiet = ConnectToService();
    AwaitLive(2);
    sim::SetPipeClientSession(2);
    std::vector<FileHandle> flood;
    for (int i = 0; i < 50; ++i) {
      flood.push_back(ConnectToService());
      Send(flood.back().Get(), sent);
    }
    while (LiveConnections() > 40) {
      SwitchToThread();
    }
    ASSERT_TRUE(Send(quiet.Get(), kAsk));
    EXPECT_EQ(ReceiveLine(quiet.Get()), kStatus) << sent;
    flood.clear();
    quiet.Reset();
    AwaitLive(1);
    sim::SetPipeClientSession(1);
  }
  EXPECT_EQ(test::LogTexts().size(), kQuiet.size());
}

TEST_F(PipeServer, WhoWaitsForSomebodysPairingLeavesThePoolItsThreads) {
  sim::LimitPool(45);
  ServeVirtually();
  std::vector<FileHandle> waiting;
  const auto connect = [&](std::string_view request) {
    waiting.push_back(ConnectToService());
    ASSERT_TRUE(Send(waiting.back().Get(), request));
    Clock().RunFor(waiting.size() < 40 ? 0 : 100);
  };
  const win32::LockGuard pairing(enrolment::PairingLock());
  while (waiting.size() < 48) {
    connect(R"({"cmd":"pair.check","code":"12345678"})");
  }
  connect(kAsk);
  DWORD size = 0;
  PeekNamedPipe(waiting.back().Get(), nullptr, 0, nullptr, &size, nullptr);
  EXPECT_EQ(size, std::string_view(kStatus).size()) << "bytes of a reply that are there";
}

TEST_F(PipeServer, RefusalsDoNotFillTheLog) {
  const struct {
    DWORD allowed;
    const char* request;
    std::string reply, line;
  } cases[] = {{0, "{}", kRefused, "WARN caller refused: this service is unsigned and DevAllowUnsigned is not set"},
               {1, R"({"cmd":"unlock"})", "{\"ok\":false,\"error\":\"not_permitted\"}\n",
                "WARN unlock refused: the caller is not the kiosk account in its own session"}};
  ServeVirtually();
  std::size_t said = kQuiet.size();
  for (const auto& each : cases) {
    test::SetDword(state::kStateKey, L"DevAllowUnsigned", each.allowed);
    for (int i = 0; i < 15; ++i) {
      EXPECT_EQ(Exchange(each.request), each.reply);
    }
    EXPECT_EQ(test::CountLogged(each.line), 10);
    Clock().RunFor(120'000);
    EXPECT_EQ(test::CountLogged(each.line + " (5 more times within a minute)"), 1);
    Exchange(each.request);
    EXPECT_EQ(test::CountLogged(each.line), 11);
    Clock().RunFor(120'000);
    EXPECT_EQ(test::LogTexts().size(), said += 12);
  }
  for (int i = 0; i < 80; ++i) {  // many of one kind hide none of the other
    LogRefusal("caller refused: C:\\%d.exe is not validly signed", i);
    LogRefusal("unlock refused: %d", i);
  }
  Clock().RunFor(120'000);
  EXPECT_EQ(test::CountLogged("WARN caller refused: one of many other programs (38 more times within a minute)"), 1);
  EXPECT_EQ(test::CountLogged("WARN a command refused: one of many others (38 more times within a minute)"), 1);
}

TEST_F(PipeServer, ConnectingThatKeepsFailingIsToldOnceAndTriedSlowly) {
  constexpr char kFailed[] = "ERROR cannot connect the pipe (8)";
  sim::FailPipeConnects(ERROR_NOT_ENOUGH_MEMORY);
  ServeVirtually();
  Clock().RunFor(19'900);
  EXPECT_EQ(sim::PipeConnects(), 11);
  EXPECT_EQ(test::CountLogged(kFailed), 1);
  sim::FailPipeConnects(ERROR_SUCCESS);
  Clock().RunFor(2'000);
  EXPECT_EQ(Exchange("{}"), kUnknownCommand);
}

TEST_F(PipeServer, AStopEndsEverythingAtOnce) {
  Serve();
  const FileHandle silent = ConnectToService();
  const FileHandle half = ConnectToService();
  const FileHandle unread = ConnectToService();
  ASSERT_TRUE(Send(half.Get(), "{\"cmd\":\"sta"));
  ASSERT_TRUE(Send(unread.Get(), "{\"cmd\":\"status\"}"));
  AwaitLive(3);
  const std::uint64_t start = win32::TickCount();
  win32::RequestStop();
  EXPECT_TRUE(BecomesIdle());
  EXPECT_LT(win32::TickCount() - start, 2000U);
  EXPECT_EQ(ReceiveLine(silent.Get()), "");
  while (WaitNamedPipeW(kPipeName, 1) != 0 || GetLastError() != ERROR_FILE_NOT_FOUND) {
    SwitchToThread();  // until the server has let go of the name
  }
}

TEST_F(PipeServer, WhatACommandLeftHappensWhenThePipeIsClosed) {
  Serve();
  constexpr char kRequest[] = "{\"cmd\":\"restart.now\"}\n";
  constexpr char kOk[] = "{\"ok\":true}\n";
  const auto pending = [] {
    sim::ForgetShutdown();
    account::ScheduleKioskRestart();
  };
  const auto restartsUnseen = [] {
    while (account::KioskRestartPending()) {
      SwitchToThread();
    }
    return BecomesIdle() && sim::PendingShutdown();
  };

  pending();
  FileHandle pipe = ConnectToService();
  ASSERT_TRUE(Send(pipe.Get(), kRequest));
  EXPECT_EQ(ReceiveLine(pipe.Get()), kOk);
  EXPECT_EQ(LiveConnections(), 1);
  EXPECT_FALSE(sim::PendingShutdown());
  EXPECT_TRUE(account::KioskRestartPending());
  pipe.Reset();
  ASSERT_TRUE(BecomesIdle());
  EXPECT_TRUE(sim::PendingShutdown());
  EXPECT_EQ(Exchange(kRequest), "{\"ok\":false,\"error\":\"not_pending\"}\n");

  // Its client goes without having read the reply.
  pending();
  ASSERT_TRUE(Send(ConnectToService().Get(), kRequest));
  EXPECT_TRUE(restartsUnseen());

  // The service stops while its client still holds the pipe.
  pending();
  pipe = ConnectToService();
  ASSERT_TRUE(Send(pipe.Get(), kRequest));
  EXPECT_EQ(ReceiveLine(pipe.Get()), kOk);
  win32::RequestStop();
  EXPECT_TRUE(restartsUnseen());
  EXPECT_EQ(test::CountLogged("INFO restarting into kiosk mode (restart.now)"), 3);
}

}  // namespace
}  // namespace kiosk::pipe
