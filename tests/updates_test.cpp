// Update runs against the simulated update agent, their report, and the terminal's commands.
#include "tests/support/updates.h"
#include "account/unlock_token.h"
#include "json/serialise.h"
#include "pipe/dispatch.h"
#include "portal/check_in.h"
#include "sim/event_log.h"
#include "sim/faults.h"
#include "sim/shutdown.h"
#include "tests/support/command.h"
#include "updates/agent_callbacks.h"
#include "updates/report.h"
#include "updates/stored_policy.h"
#include "updates/update_commands.h"
#include "updates/update_run.h"

#include <map>

namespace kiosk::updates {
namespace {

using test::kKioskSession;
using test::SetDword;
using test::SetString;

class UpdatesTest : public test::UpdatesTerminal {
 protected:
  RunResult Run(bool install) {
    const auto claim = RunClaim::Take();
    EXPECT_TRUE(claim);
    RunResult result = RunUpdates(install);
    clock_.RunFor(1);  // the agent's thread lets go of what it holds
    return result;
  }
  static std::string Status() { return json::Serialise(test::Ask(OsUpdates)); }
};

TEST_F(UpdatesTest, InstallsWhatNeedsNoPerson) {
  EXPECT_EQ(Status(), R"({"ok":true,"checking":false,"installing":false,"progress":0,"restartRequired":false,)"
                      R"("lastChecked":null,"error":null,"updates":[]})");
  sim::OfferUpdate({.title = L"Łódź – 更新", .size = L"5000000000", .reboot = 1, .termsAccepted = false});
  sim::OfferUpdate({.title = L"Preview", .browseOnly = true});
  sim::OfferUpdate({.title = L"Asks", .size = L"-1", .reboot = 2, .asksPerson = true});
  sim::OfferUpdate({.title = L"Fails", .size = L"none", .failure = 0x80070643});
  sim::OfferUpdate({.title = L"Terms", .termsAccepted = false, .termsFailure = 0x80240025});
  sim::OfferUpdate({.title = L"Fine", .noBehaviour = true});
  sim::OfferUpdate({.title = L"Does not come", .downloadFailure = 0x80246007});
  sim::agent.duration[sim::kSearch].Set(300);
  sim::agent.duration[sim::kDownload].Set(3000);
  sim::agent.duration[sim::kInstall].Set(3000);
  std::vector<int> progress;
  for (const std::uint64_t at : {1200U, 1400U, 2500U, 3400U, 4400U, 5500U}) {
    clock_.At(at, [&progress] { progress.push_back(CurrentProgress()); });
  }
  std::string during;
  clock_.At(1500, [&during] { during = Status(); });
  const RunResult result = Run(true);
  EXPECT_EQ(result.code, RunCode::kDone);
  EXPECT_EQ(result.pending, 4);
  EXPECT_EQ(result.restartRequired, true);
  EXPECT_EQ(progress, (std::vector<int>{0, 0, 25, 50, 50, 75}));
  EXPECT_TRUE(during.starts_with(R"({"ok":true,"checking":false,"installing":true,"progress":0,)")) << during;
  EXPECT_NE(during.find(R"({"id":"id-000000","title":"Łódź – 更新","sizeBytes":5000000000,"restartRequired":true})"),
            std::string::npos);
  EXPECT_EQ(Status(), R"({"ok":true,"checking":false,"installing":false,"progress":0,"restartRequired":true,)"
                      R"("lastChecked":"2026-11-21T09:00:00Z","error":null,"updates":[)"
                      R"({"id":"id-000002","title":"Asks","sizeBytes":0,"restartRequired":true},)"
                      R"({"id":"id-000003","title":"Fails","sizeBytes":0,"restartRequired":false},)"
                      R"({"id":"id-000004","title":"Terms","sizeBytes":1048576,"restartRequired":false},)"
                      R"({"id":"id-000006","title":"Does not come","sizeBytes":1048576,"restartRequired":false}]})");
  EXPECT_EQ(test::LogTexts(),
            (std::vector<std::string>{
                "INFO os updates: searching", "WARN os updates: cannot accept the terms of \"Terms\" (0x80240025)",
                "INFO os updates: 6 pending", "INFO os updates: downloading 4",
                "WARN os updates: \"Does not come\" was not downloaded (0x80246007)", "INFO os updates: installing 3",
                "WARN os updates: \"Fails\" was not installed (0x80070643)",
                "INFO os updates: installed; 4 still pending, restart required"}));
  EXPECT_EQ(sim::agent.client.Get(), L"Norvane Kiosk");
  EXPECT_EQ(sim::LiveComObjects(), 0);
}

TEST_F(UpdatesTest, WhenThereIsNothingToInstall) {
  EXPECT_EQ(Run(true).code, RunCode::kNothing);
  sim::OfferUpdate({.title = L"Preview", .browseOnly = true});
  EXPECT_EQ(Run(false).code, RunCode::kNothing);
  sim::OfferUpdate({.title = L"Asks", .asksPerson = true});
  sim::agent.rebootRequired.Set(1);
  const RunResult checked = Run(false);
  EXPECT_TRUE(checked.code == RunCode::kDone && checked.pending == 1 && checked.restartRequired == true);
  EXPECT_EQ(test::CountLogged("WARN os updates: none of the pending updates can install without a person"), 0);
  EXPECT_EQ(Run(true).code, RunCode::kNothing);
  EXPECT_EQ(test::CountLogged("WARN os updates: none of the pending updates can install without a person"), 1);
  EXPECT_EQ(sim::AgentWork().find("downloaded"), std::string::npos);
}

TEST_F(UpdatesTest, AnUpdateThatInstallsAloneComesInAPassOfItsOwn) {
  const auto isolated = [](const wchar_t* title, DWORD failure = 0) {
    sim::OfferUpdate({.title = title, .exclusive = true, .failure = failure});
  };
  isolated(L"Alone");
  EXPECT_EQ(Run(true).pending, 0);
  EXPECT_EQ(sim::AgentWork(), "searched 1\ndownloaded 1\ninstalled 1\n");

  // The first pass decides on the word; the progress stays below 100 until all are over.
  isolated(L"Breaks", 0x80070643);
  isolated(L"Works");
  sim::OfferUpdate({.title = L"One"});
  sim::OfferUpdate({.title = L"Two"});
  sim::agent.duration[sim::kInstall].Set(3000);
  std::vector<int> progress;
  std::string during;
  for (const std::uint64_t at : {2900U, 3100U, 5900U, 8900U}) {
    clock_.At(clock_.Elapsed() + at, [&] {
      progress.push_back(CurrentProgress());
      during = Status();
    });
  }
  RunResult result = Run(true);
  EXPECT_TRUE(result.code == RunCode::kDone && result.pending == 1 && result.restartRequired == false);
  EXPECT_EQ(result.error, "install_failed 0x80240022");
  EXPECT_EQ(progress, (std::vector<int>{74, 99, 99, 99}));
  EXPECT_NE(during.find(R"("installing":true,"progress":99,)"), std::string::npos) << during;
  EXPECT_EQ(sim::AgentWork().substr(36),
            "searched 4\ndownloaded 2\ninstalled 2\ndownloaded 1\ninstalled 1\ndownloaded 1\n"
            "installed 1\n");
  EXPECT_EQ(test::LogTexts().back(), "INFO os updates: installed; 1 still pending");

  // Nothing on top of what waits for a restart, or when the window has closed meanwhile.
  sim::agent.duration[sim::kInstall].Set(0);
  sim::OfferUpdate({.title = L"Three", .reboot = 1});
  result = Run(true);
  EXPECT_TRUE(result.code == RunCode::kDone && result.pending == 1 && result.restartRequired == true);
  EXPECT_EQ(test::CountLogged("INFO os updates: 1 that Windows installs alone left for the next run"), 1);
  sim::RestartAgent();
  sim::OfferUpdate({.title = L"Four"});
  {
    const auto claim = RunClaim::Take();
    result = RunUpdates(true, [] { return false; });
  }
  EXPECT_TRUE(result.code == RunCode::kDone && result.pending == 1 && result.error.empty());
  EXPECT_EQ(test::CountLogged("INFO os updates: 1 that Windows installs alone left for the next run"), 2);
  clock_.RunFor(1);
}

TEST_F(UpdatesTest, AFailedRunTellsWhetherARestartIsOwed) {
  sim::OfferUpdate({.title = L"One", .failure = 0x80070643});
  sim::agent.rebootRequired.Set(1);
  const RunResult failed = Run(true);
  EXPECT_TRUE(failed.code == RunCode::kFailed && failed.error == "install_failed 0x80240022" && failed.pending == 1);
  EXPECT_EQ(failed.restartRequired, true);
  EXPECT_NE(Status().find(R"("restartRequired":true)"), std::string::npos);
  sim::agent.rebootRequired.Set(0);
  sim::agent.failSession.Set(0x80070005);
  EXPECT_EQ(Run(true).restartRequired, false);
  sim::agent.failSystem.Set(0x80070005);
  EXPECT_EQ(Run(true).restartRequired, std::nullopt);
}

TEST_F(UpdatesTest, EveryStageThatFailsIsNamed) {
  sim::OfferUpdate({.title = L"Fine"});
  const struct {
    const sim::Field<>* setting;
    DWORD value;
    const char* error;
  } cases[] = {{&sim::agent.failSession, 0x80070005, "session 0x80070005"},
               {&sim::agent.failSearcher, 0x8024001E, "searcher 0x8024001e"},
               {&sim::agent.failBegin[sim::kSearch], 0x80240024, "search_failed 0x80240024"},
               {&sim::agent.fail[sim::kSearch], 0x8024402C, "search_failed 0x8024402c"},
               {&sim::agent.codeSearch, 4, "search_failed 0x80004005"},
               {&sim::agent.codeSearch, 5, "search_failed 0x80004004"},
               {&sim::agent.failCollection, 0x80040154, "collection 0x80040154"},
               {&sim::agent.failDownloader, 0x80070005, "downloader 0x80070005"},
               {&sim::agent.failBegin[sim::kDownload], 0x80240024, "download_failed 0x80240024"},
               {&sim::agent.fail[sim::kDownload], 0x80246007, "download_failed 0x80246007"},
               {&sim::agent.failInstaller, 0x80070005, "installer 0x80070005"},
               {&sim::agent.installerBusy, 1, "busy"},
               {&sim::agent.failBegin[sim::kInstall], 0x80240016, "install_failed 0x80240016"},
               {&sim::agent.fail[sim::kInstall], 0x80070643, "install_failed 0x80070643"}};
  for (const auto& each : cases) {
    each.setting->Set(each.value);
    const RunResult result = Run(true);
    each.setting->Set(0);
    EXPECT_TRUE(result.code == RunCode::kFailed && result.error == each.error) << each.error << ": " << result.error;
    EXPECT_EQ(test::LogTexts().back(), std::string("ERROR os updates: ") + each.error);
    EXPECT_NE(Status().find(R"("checking":false,"installing":false,)"), std::string::npos);
    EXPECT_NE(Status().find(R"("error":")" + std::string(each.error) + R"(",)"), std::string::npos);
    EXPECT_EQ(sim::LiveComObjects() + sim::LiveAgentOperations(), 0) << each.error;
  }
  sim::agent.codeSearch.Set(3);  // with errors, and yet it found something; none of the failures changed anything
  EXPECT_EQ(Run(true).pending, 0);
  EXPECT_NE(Status().find(R"("error":null)"), std::string::npos);
  ASSERT_EQ(CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED), S_OK);
  EXPECT_EQ(Run(true).error, "com 0x80010106");
  CoUninitialize();
}

// Whatever the run does then, and whether the agent gives it up or not.
class UpdatesStop : public UpdatesTest, public testing::WithParamInterface<std::tuple<sim::AgentStage, bool>> {};
std::string NameOf(const testing::TestParamInfo<UpdatesStop::ParamType>& each) {
  const auto& [stage, stubborn] = each.param;
  constexpr const char* kStages[] = {"search", "download", "install"};
  return std::string(kStages[stage]) + (stubborn ? "Stubborn" : "");
}
INSTANTIATE_TEST_SUITE_P(Stages, UpdatesStop,
                         testing::Combine(testing::Values(sim::kSearch, sim::kDownload, sim::kInstall),
                                          testing::Bool()),
                         NameOf);

TEST_P(UpdatesStop, EndsInTimeAndLeavesNoResult) {
  const auto& [stage, stubborn] = GetParam();
  sim::OfferUpdate({.title = L"Fine"});
  sim::agent.duration[stage].Set(stubborn ? 60'000 : INFINITE);
  sim::agent.stubborn.Set(stubborn);
  clock_.At(5000, [] { win32::RequestStop(); });
  ASSERT_TRUE(json::Member(test::Ask(OsInstall), "ok").boolean());
  clock_.RunUntil(stubborn ? 14'900 : 4999);
  EXPECT_TRUE(RunIsGoing());
  EXPECT_EQ(json::Serialise(test::Ask(OsInstall)), R"({"ok":false,"error":"busy"})");
  clock_.RunUntil(stubborn ? 15'100 : 5100);
  EXPECT_FALSE(RunIsGoing());
  EXPECT_EQ(sim::LiveAgentOperations(), stubborn ? 1 : 0);
  clock_.RunUntil(120'000);  // now the agent calls what is left of the run
  EXPECT_EQ(sim::LiveAgentOperations() + sim::LiveComObjects(), 0);
  EXPECT_EQ(StoredReport(), "");
  EXPECT_NE(Status().find(R"("checking":false,"installing":false,)"), std::string::npos);
  EXPECT_NE(Status().find(R"("error":null)"), std::string::npos);
  const std::string work = sim::AgentWork();
  EXPECT_EQ(Run(true).code, RunCode::kStopped);
  EXPECT_EQ(sim::AgentWork(), work);  // nothing is begun that would have to be given up at once
}

TEST_F(UpdatesTest, CallbacksOutliveTheRunAndBelongToNoApartment) {
  const ProgressStage stage = BeginProgressStage(10);
  auto operation = std::make_shared<Operation>(
      Operation{win32::KernelHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)), stage, 50, 50});
  const std::weak_ptr<Operation> watched = operation;
  // NOLINTBEGIN(clang-analyzer-cplusplus.NewDelete): the linter does not follow the count, which is what is tested here
  auto* const completed = new InstallationCompleted(std::move(operation));
  for (const IID& id : {IID_IUnknown, __uuidof(IInstallationCompletedCallback), __uuidof(IAgileObject)}) {
    void* same = nullptr;
    EXPECT_EQ(completed->QueryInterface(id, &same), S_OK);
    EXPECT_EQ(same, completed);
    EXPECT_EQ(completed->Release(), 1U);
  }
  void* other = completed;
  EXPECT_EQ(completed->QueryInterface(IID_IDispatch, &other), E_NOINTERFACE);
  EXPECT_EQ(other, nullptr);
  EXPECT_EQ(completed->QueryInterface(IID_IUnknown, nullptr), E_POINTER);
  EXPECT_EQ(completed->AddRef(), 2U);
  EXPECT_EQ(completed->Release(), 1U);
  EXPECT_EQ(completed->Invoke(nullptr, nullptr), S_OK);
  EXPECT_EQ(WaitForSingleObject(watched.lock()->done.Get(), 0), WAIT_OBJECT_0);
  EXPECT_EQ(completed->Release(), 0U);
  // NOLINTEND(clang-analyzer-cplusplus.NewDelete)
  EXPECT_TRUE(watched.expired());
  BeginProgressStage(50);
  ReportProgress(stage, 20);  // of the stage before
  EXPECT_EQ(CurrentProgress(), 50);
}

TEST_F(UpdatesTest, TheReport) {
  // Of a run before Windows started, ten minutes ago.
  SetString(state::kStateKey, L"OsUpdatesReport", LR"({"lastRunAt":"2026-11-21T08:49:59Z","restartRequired":true})");
  RememberOwedRestart();
  EXPECT_NE(Status().find(R"("restartRequired":false)"), std::string::npos);
  SetString(state::kStateKey, L"OsUpdatesReport", L"{\"pending\":1e999}");
  json::Value body = json::Value::Object();
  AddUpdatesReport(body);
  EXPECT_EQ(json::Serialise(body), "{}") << "JSON has no infinity";
  RunResult run{RunCode::kDone, 700, true, std::string(79, 'x') + "ü tail"};
  EXPECT_TRUE(WriteUpdatesReport("tok", "ok", &run));
  EXPECT_EQ(StoredReport(), R"({"lastRunAt":"2026-11-21T09:00:00Z","lastResult":"ok","error":")" +
                                std::string(79, 'x') + R"(","pending":500,"restartRequired":true})");
  EXPECT_EQ(state::ReadState(state::kOsUpdatesReport)->type, DWORD{REG_SZ});
  RememberOwedRestart();
  EXPECT_NE(Status().find(R"("restartRequired":true)"), std::string::npos);
  const std::string kept = R"({"lastRunAt":"2026-11-21T09:00:00Z","lastResult":"deferred","error":null,"pending":)";
  const std::wstring other = L"{\"lastRunAt\":1,\"lastResult\":2,\"error\":3,\"pending\":";
  for (const auto& [stored, tail] : std::map<std::wstring, std::string>{
           {L"", R"(0,"restartRequired":false})"},
           {L"{", R"(0,"restartRequired":false})"},
           {L"[{\"pending\":3}]", R"(0,"restartRequired":false})"},
           {other + L"7,\"restartRequired\":true}", R"(7,"restartRequired":true})"},
           {other + L"1e308,\"restartRequired\":1}", R"(500,"restartRequired":false})"},
           {other + L"-3,\"restartRequired\":\"true\"}", R"(0,"restartRequired":false})"}}) {
    SetString(state::kStateKey, L"OsUpdatesReport", stored);
    EXPECT_TRUE(WriteUpdatesReport("tok", "deferred", nullptr));
    EXPECT_EQ(StoredReport(), kept + tail) << win32::ToNarrow(stored);
  }
  // A run that failed before it knew tells nothing about what is missing.
  SetString(state::kStateKey, L"OsUpdatesReport", L"{\"pending\":7,\"restartRequired\":true}");
  run = {RunCode::kFailed, {}, {}, "busy"};
  RecordRun("tok", run);
  RecordRun("tok", run);
  RecordRun("of before", {RunCode::kNothing, {}, {}, {}});
  RecordRun("tok", run);
  EXPECT_EQ(sim::EventLogEntries(), std::vector<std::string>{"NorvaneKiosk warning 220 [busy]"});
  EXPECT_EQ(InReport("pending") + InReport("restartRequired") + InReport("error") + InReport("lastResult"),
            "7truebusyfailed");
  const std::string before = StoredReport();
  EXPECT_FALSE(WriteUpdatesReport("of before", "ok", &run));
  SetDword(state::kStateKey, L"TeardownPending", 1);
  EXPECT_FALSE(WriteUpdatesReport("tok", "ok", &run));
  MarkWindowDone("tok", "2026-11-21");
  EXPECT_EQ(StoredReport() + WindowDone(), before);
}

TEST_F(UpdatesTest, TheTerminalsCommands) {
  const auto ask = [](const std::string& request) {
    const pipe::CallerRecord caller{.isInteractive = true, .isKioskAccount = true, .sessionId = kKioskSession};
    command::PostReplyAction after = nullptr;
    return json::Serialise(pipe::Dispatch(caller, request, after));
  };
  EXPECT_EQ(ask(R"({"cmd":"session.report","signedIn":true})"), R"({"ok":true})");
  EXPECT_EQ(ask(R"({"cmd":"session.report","signedIn":false,"live":null})"), R"({"ok":true})");
  EXPECT_EQ(test::LogTexts(), (std::vector<std::string>{"INFO a Norvane user is signed in at the terminal",
                                                        "INFO a Norvane user is no longer signed in at the terminal"}));
  for (const char* rest : {"", R"(,"signedIn":1)", R"(,"signedIn":null)", R"(,"signedIn":true,"live":"true")"}) {
    EXPECT_EQ(ask(std::string(R"({"cmd":"session.report")") + rest + "}"), R"({"ok":false,"error":"invalid"})");
  }

  const text::Secret unlock = account::NewUnlockToken(kKioskSession);
  const auto unlocked = [&](const std::string& rest) {
    return ask(R"({"unlockToken":")" + unlock.Get() + R"(","cmd":)" + rest + "}");
  };
  SetPolicy("02:00", "05:00", "[1]");
  const std::string idle = unlocked(R"("os.updates","check":false)");
  EXPECT_TRUE(idle.ends_with(
      R"("updates":[],"policy":{"automatic":true,"window":{"start":"02:00","end":"05:00","days":[1]}}})"))
      << idle;
  EXPECT_EQ(unlocked(R"("os.updates","check":null)"), idle);
  EXPECT_EQ(unlocked(R"("os.updates","check":"yes")"), R"({"ok":false,"error":"invalid"})");
  EXPECT_FALSE(RunIsGoing());
  sim::OfferUpdate({.title = L"Fine"});
  sim::agent.duration[sim::kSearch].Set(30'000);
  EXPECT_TRUE(unlocked(R"("os.updates","check":true)").starts_with(R"({"ok":true,"checking":true,)"));
  clock_.RunFor(10'000);
  EXPECT_TRUE(unlocked(R"("os.updates","check":true)").starts_with(R"({"ok":true,"checking":true,)"));
  EXPECT_EQ(unlocked(R"("os.install")"), R"({"ok":false,"error":"busy"})");
  EXPECT_EQ(clock_.Elapsed(), 10'000U);  // nothing waited for the run
  clock_.RunFor(25'000);
  EXPECT_EQ(InReport("lastResult") + InReport("pending"), "ok1");
  EXPECT_TRUE(unlocked(R"("os.install")").starts_with(R"({"ok":true,"checking":true,)"));
  EXPECT_EQ(unlocked(R"("os.install")"), R"({"ok":false,"error":"busy"})");
  clock_.RunFor(60'000);
  EXPECT_EQ(InReport("lastResult") + InReport("pending"), "ok0");
  EXPECT_EQ(sim::AgentWork(), "searched 1\nsearched 1\ndownloaded 1\ninstalled 1\n");
  EXPECT_EQ(test::CountLogged("INFO os updates: check requested at the terminal"), 1);
  EXPECT_EQ(test::CountLogged("INFO os updates: install requested at the terminal"), 1);
}

TEST_F(UpdatesTest, TakenOverFromTheCheckIn) {
  answer_ = {.body = R"({"status":"enrolled","updatesSource":"tenant","updates":)"
                     R"({"window":{"end":"05:00","start":"02:00","days":[6,0]},"automatic":true}})"};
  portal::CheckIn("tok");
  const std::wstring policy = LR"({"automatic":true,"window":{"start":"02:00","end":"05:00","days":[0,6]}})";
  EXPECT_EQ(state::ReadStateString(state::kUpdatesPolicy) + state::ReadStateString(state::kUpdatesSource),
            policy + L"tenant");
  EXPECT_EQ(test::CountLogged("INFO os updates: the portal's policy is now " + win32::ToNarrow(policy)), 1);
  EXPECT_EQ(portal_.Requests().back().body.find("osUpdates"), std::string::npos);
  WriteUpdatesReport("tok", "nothing", nullptr);
  portal::CheckIn("tok");
  const std::string body = portal_.Requests().back().body;
  EXPECT_TRUE(body.ends_with(R"(,"osUpdates":)" + StoredReport() + "}")) << body;
}

}  // namespace
}  // namespace kiosk::updates
