#include "updates/update_run.h"

#include "log/log.h"
#include "updates/agent_callbacks.h"
#include "updates/agent_results.h"
#include "updates/agent_steps.h"
#include "updates/found_update.h"
#include "updates/install_pass.h"
#include "win32/com.h"
#include "win32/stop.h"

#include <cstddef>
#include <optional>
#include <utility>
#include <vector>

namespace kiosk::updates {
namespace {

using win32::ComPtr;

constexpr wchar_t kClient[] = L"Norvane Kiosk";
constexpr wchar_t kCriteria[] = L"IsInstalled=0 and IsHidden=0 and Type='Software'";
// An installation that is not the run's last stays below 100 percent, and those after it do not move the progress.
constexpr int kNearlyDone = 99;

// Whether Windows itself waits for a restart; empty when it does not tell.
std::optional<bool> SystemWaitsForRestart() {
  ComPtr<ISystemInformation> system;
  HRESULT result = CreateInProcess(__uuidof(SystemInformation), __uuidof(ISystemInformation), system);
  VARIANT_BOOL required = VARIANT_FALSE;
  if (SUCCEEDED(result) && system) {
    result = system->get_RebootRequired(&required);
  }
  if (FAILED(result)) {
    log::Log(log::kWarn, log::kKiosk, "os updates: Windows does not tell whether it waits for a restart (%s)",
             win32::HresultText(result).c_str());
    return std::nullopt;
  }
  return required != VARIANT_FALSE;
}

// One run. Every step returns false when the run is over: failed, or ended by a stop. COM is initialised around it.
class Run {
 public:
  Run(bool install, const MayGoOn& mayGoOn, RunResult& result)
      : install_(install), mayGoOn_(mayGoOn), result_(result), steps_(result) {}

  void Perform() {
    const bool listed = Open() && Search() && Collect();
    bool installed = false;
    if (listed) {
      Publish(!chosen_.empty());
      log::Log(log::kNotice, log::kKiosk, "os updates: %d pending", *result_.pending);
      installed = chosen_.empty() ? NothingToInstall() : Install();
    }
    if (result_.code == RunCode::kStopped || (!listed && !install_)) {
      return;
    }
    // Also after a failure: what was installed before it may wait for a restart.
    result_.restartRequired = restartRequired_ ? true : SystemWaitsForRestart();
    if (installed) {
      BeginProgressStage(100);
    }
    {
      const LockedUpdateState state;
      state->installing = false;
      state->restartRequired = result_.restartRequired.value_or(state->restartRequired);
    }
    if (installed) {
      log::Log(log::kNotice, log::kKiosk, "os updates: installed; %d still pending%s", *result_.pending,
               result_.restartRequired.value_or(false) ? ", restart required" : "");
    }
  }

 private:
  bool Open() {
    const HRESULT created = CreateInProcess(__uuidof(UpdateSession), __uuidof(IUpdateSession), session_);
    if (!steps_.Check("session", Given(created, session_))) {
      return false;
    }
    const win32::Bstr client = win32::MakeBstr(kClient);
    if (!steps_.Check("session", session_->put_ClientApplicationID(client.Get()))) {
      return false;
    }
    const HRESULT made = session_->CreateUpdateSearcher(searcher_.Put());
    return steps_.Check("searcher", Given(made, searcher_));
  }

  bool Search() {
    log::Log(log::kNotice, log::kKiosk, "os updates: searching");
    SharedOperation operation;
    if (!steps_.Begin(kSearchFailed, 0, 0, operation)) {
      return false;
    }
    const ComPtr<SearchCompleted> completed(new SearchCompleted(operation));
    const win32::Bstr criteria = win32::MakeBstr(kCriteria);
    ComPtr<ISearchJob> job;
    const HRESULT begun = searcher_->BeginSearch(criteria.Get(), completed.Get(), VARIANT{}, job.Put());
    ComPtr<ISearchResult> found;
    if (!steps_.Check(kSearchFailed, Given(begun, job)) ||
        !steps_.Finish(kSearchFailed, *operation, job, searcher_, &IUpdateSearcher::EndSearch, found)) {
      return false;
    }
    OperationResultCode code = orcFailed;
    HRESULT outcome = found->get_ResultCode(&code);
    if (SUCCEEDED(outcome) && !Succeeded(code)) {
      outcome = code == orcAborted ? E_ABORT : E_FAIL;  // a search's result has no number of its own
    }
    if (SUCCEEDED(outcome)) {
      const HRESULT listed = found->get_Updates(found_.Put());
      outcome = Given(listed, found_);
    }
    if (!steps_.Check(kSearchFailed, outcome)) {
      return false;
    }
    const LockedUpdateState state;
    state->lastChecked = UtcNowText();
    return true;
  }

  bool Collect() {
    LONG count = 0;
    if (!NewCollection() || !steps_.Check(kSearchFailed, found_->get_Count(&count))) {
      return false;
    }
    for (LONG i = 0; i < count; ++i) {
      ComPtr<IUpdate> update;
      const HRESULT got = found_->get_Item(i, update.Put());
      if (win32::StopRequested()) {
        return steps_.Stopped();
      }
      if (!steps_.Check(kSearchFailed, Given(got, update))) {
        return false;
      }
      if (!IsBrowseOnly(update)) {
        listed_.push_back(ReadUpdate(update));
      }
    }
    Choose();
    return true;
  }

  bool NewCollection() {
    const HRESULT created = CreateInProcess(kUpdateCollectionClass, __uuidof(IUpdateCollection), collection_);
    return steps_.Check("collection", Given(created, collection_));
  }

  // What is to be installed, in passes: first all that install together, then each of the others alone.
  void Choose() {
    std::vector<FoundUpdate*> together;
    for (FoundUpdate& update : listed_) {
      if (!install_ || update.entry.mayAsk || !TermsAccepted(update)) {
        continue;
      }
      if (update.exclusive) {
        chosen_.push_back({&update});
      } else {
        together.push_back(&update);
      }
    }
    if (!together.empty()) {
      chosen_.insert(chosen_.begin(), std::move(together));
    }
  }

  static bool TermsAccepted(const FoundUpdate& update) {
    const HRESULT accepted = AcceptTerms(update.update.Get());
    if (FAILED(accepted)) {
      // With terms that nobody accepted Windows would refuse to install anything. It stays pending.
      log::Log(log::kWarn, log::kKiosk, "os updates: cannot accept the terms of \"%s\" (%s)",
               update.entry.title.c_str(), win32::HresultText(accepted).c_str());
    }
    return SUCCEEDED(accepted);
  }

  // Puts what is still missing into the result and the shared state, and whether the run installs.
  void Publish(bool installing) {
    std::vector<PendingUpdate> pending;
    for (const FoundUpdate& update : listed_) {
      if (!update.installed) {
        pending.push_back(update.entry);
      }
    }
    result_.pending = static_cast<int>(pending.size());
    const LockedUpdateState state;
    state->pending = std::move(pending);
    state->checking = false;
    state->installing = installing;
  }

  // False: nothing was installed.
  bool NothingToInstall() {
    result_.code = listed_.empty() ? RunCode::kNothing : RunCode::kDone;
    if (install_ && !listed_.empty()) {
      log::Log(log::kWarn, log::kKiosk, "os updates: none of the pending updates can install without a person");
      result_.code = RunCode::kNothing;
    }
    return false;
  }

  // Makes every pass. The first decides whether the run failed; the outcome of a later one shows in the error text and
  // in what is still pending. False when the run is over, or failed.
  bool Install() {
    for (std::size_t pass = 0; pass < chosen_.size(); ++pass) {
      if (pass > 0 && !AnotherPass(chosen_.size() - pass)) {
        break;
      }
      const PassProgress progress = pass > 0             ? PassProgress{kNearlyDone, kNearlyDone, kNearlyDone}
                                    : chosen_.size() > 1 ? PassProgress{.end = kNearlyDone}
                                                         : PassProgress{};
      const bool done = InstallTogether(steps_, session_.Get(), collection_, chosen_[pass], progress, restartRequired_);
      if (result_.code == RunCode::kStopped) {
        return false;
      }
      Publish(done || pass > 0);
      if (!done && pass == 0) {
        return false;
      }
    }
    result_.code = RunCode::kDone;
    return true;
  }

  // Nothing is installed on top of what waits for a restart.
  bool AnotherPass(std::size_t left) {
    if (!restartRequired_ && SystemWaitsForRestart() == false && mayGoOn_() && NewCollection()) {
      return true;
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: %zu that Windows installs alone left for the next run", left);
    return false;
  }

  const bool install_;
  const MayGoOn& mayGoOn_;
  RunResult& result_;
  AgentSteps steps_;
  ComPtr<IUpdateSession> session_;
  ComPtr<IUpdateSearcher> searcher_;
  ComPtr<IUpdateCollection> found_;
  ComPtr<IUpdateCollection> collection_;  // what the pass is to install
  std::vector<FoundUpdate> listed_;
  std::vector<std::vector<FoundUpdate*>> chosen_;  // for each pass, some of `listed_`
  bool restartRequired_ = false;                   // an installation asked for one
};

}  // namespace

RunResult RunUpdates(bool install, const MayGoOn& mayGoOn) {
  {
    const LockedUpdateState state;
    state->checking = true;
    state->lastError.clear();
  }
  BeginProgressStage(0);
  RunResult result;
  const win32::ComApartment apartment;
  if (FAILED(apartment.Result())) {
    RunFailed(result, StageText("com", apartment.Result()));
    return result;
  }
  Run(install, mayGoOn, result).Perform();
  return result;
}

}  // namespace kiosk::updates
