#include "updates/update_run.h"

#include "log/log.h"
#include "updates/agent_callbacks.h"
#include "updates/agent_results.h"
#include "updates/found_update.h"
#include "win32/clock.h"
#include "win32/com.h"
#include "win32/stop.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace kiosk::updates {
namespace {

using win32::ComPtr;

constexpr wchar_t kClient[] = L"Norvane Kiosk";
constexpr wchar_t kCriteria[] = L"IsInstalled=0 and IsHidden=0 and Type='Software'";
// How long an operation that a stop abandons may take to end; the stop itself has 40 s for everything.
constexpr DWORD kAbandonWait = 10'000;
constexpr int kHalf = 50;  // of the progress: the download has the first half, the installation the second

// One run. Every step returns false when the run is over: failed, or ended by a stop. COM is initialised around it.
class Run {
 public:
  Run(bool install, RunResult& result) : install_(install), result_(result) {}

  void Perform() {
    if (!Open() || !Search() || !Collect()) {
      return;
    }
    Publish();
    if (chosen_.empty()) {
      FinishWithoutInstalling();
    } else if (Download() && Install()) {
      FinishInstalled();
    }
  }

 private:
  bool Check(const char* stage, HRESULT result) {
    if (FAILED(result)) {
      RunFailed(result_, StageText(stage, result));
    }
    return SUCCEEDED(result);
  }

  bool Stopped() {
    result_ = {};
    result_.code = RunCode::kStopped;
    return false;
  }

  bool Open() {
    const HRESULT created = CreateInProcess(__uuidof(UpdateSession), __uuidof(IUpdateSession), session_);
    if (!Check("session", Given(created, session_))) {
      return false;
    }
    const win32::Bstr client = win32::MakeBstr(kClient);
    const HRESULT named = session_->put_ClientApplicationID(client.Get());
    if (!Check("session", named)) {
      return false;
    }
    const HRESULT made = session_->CreateUpdateSearcher(searcher_.Put());
    return Check("searcher", Given(made, searcher_));
  }

  // Something for the agent to signal. Begins a stage of the progress, unless the service is stopping.
  bool Begin(const char* stage, int base, int span, SharedOperation& operation) {
    if (win32::StopRequested()) {
      return Stopped();
    }
    win32::KernelHandle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!done) {
      return Check(stage, HRESULT_FROM_WIN32(GetLastError()));
    }
    operation = std::make_shared<Operation>(Operation{std::move(done), BeginProgressStage(base), base, span});
    return true;
  }

  // Waits, without a limit of its own, until the operation is over. A stop abandons it.
  template <typename Job>
  bool Await(const ComPtr<Job>& job, const Operation& operation) {
    win32::WaitResult waited = win32::WaitResult::kTimeout;
    while (waited == win32::WaitResult::kTimeout && !win32::StopRequested()) {
      waited = win32::WaitOrStop(operation.done.Get(), INFINITE);
    }
    if (waited == win32::WaitResult::kSignaled) {
      return true;
    }
    job->RequestAbort();
    const DWORD left = std::min(kAbandonWait, win32::StopBudgetLeft());
    if (WaitForSingleObject(operation.done.Get(), left) == WAIT_OBJECT_0) {
      job->CleanUp();
    } else {
      log::Log(log::kWarn, log::kKiosk, "os updates: Windows did not give the operation up in time");
    }
    return Stopped();
  }

  bool Search() {
    log::Log(log::kNotice, log::kKiosk, "os updates: searching");
    SharedOperation operation;
    if (!Begin(kSearchFailed, 0, 0, operation)) {
      return false;
    }
    const ComPtr<SearchCompleted> completed(new SearchCompleted(operation));
    const win32::Bstr criteria = win32::MakeBstr(kCriteria);
    ComPtr<ISearchJob> job;
    const HRESULT begun = searcher_->BeginSearch(criteria.Get(), completed.Get(), VARIANT{}, job.Put());
    if (!Check(kSearchFailed, Given(begun, job)) || !Await(job, *operation)) {
      return false;
    }
    ComPtr<ISearchResult> found;
    const HRESULT ended = searcher_->EndSearch(job.Get(), found.Put());
    job->CleanUp();
    OperationResultCode code = orcFailed;
    HRESULT outcome = Given(ended, found);
    if (SUCCEEDED(outcome)) {
      outcome = found->get_ResultCode(&code);
    }
    if (SUCCEEDED(outcome) && !Succeeded(code)) {
      outcome = code == orcAborted ? E_ABORT : E_FAIL;  // a search's result has no number of its own
    }
    if (SUCCEEDED(outcome)) {
      const HRESULT listed = found->get_Updates(found_.Put());
      outcome = Given(listed, found_);
    }
    if (!Check(kSearchFailed, outcome)) {
      return false;
    }
    const LockedUpdateState state;
    state->lastChecked = UtcNowText();
    return true;
  }

  bool Collect() {
    const HRESULT created = CreateInProcess(kUpdateCollectionClass, __uuidof(IUpdateCollection), collection_);
    LONG count = 0;
    if (!Check("collection", Given(created, collection_)) || !Check(kSearchFailed, found_->get_Count(&count))) {
      return false;
    }
    for (LONG i = 0; i < count; ++i) {
      ComPtr<IUpdate> update;
      const HRESULT got = found_->get_Item(i, update.Put());
      if (win32::StopRequested()) {
        return Stopped();
      }
      if (!Check(kSearchFailed, Given(got, update)) || !Consider(update.Get())) {
        return false;
      }
    }
    return true;
  }

  // Lists the update, and chooses it for installation where that may be.
  bool Consider(IUpdate* update) {
    if (IsBrowseOnly(update)) {
      return true;
    }
    entries_.push_back(ReadUpdate(update));
    if (!install_ || entries_.back().mayAsk) {
      return true;
    }
    if (const HRESULT accepted = AcceptTerms(update); FAILED(accepted)) {
      // With terms that nobody accepted Windows would refuse to install anything. It stays pending.
      log::Log(log::kWarn, log::kKiosk, "os updates: cannot accept the terms of \"%s\" (0x%08lx)",
               entries_.back().title.c_str(), static_cast<unsigned long>(accepted));
      return true;
    }
    LONG position = 0;
    if (!Check("collection", collection_->Add(update, &position))) {
      return false;
    }
    chosen_.push_back(entries_.size() - 1);
    return true;
  }

  void Publish() {
    result_.pending = static_cast<int>(entries_.size());
    {
      const LockedUpdateState state;
      state->pending = entries_;
      state->checking = false;
      state->installing = !chosen_.empty();
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: %d pending", *result_.pending);
  }

  // Whether Windows itself waits for a restart; empty when it does not tell.
  static std::optional<bool> SystemWaitsForRestart() {
    ComPtr<ISystemInformation> system;
    HRESULT result = CreateInProcess(__uuidof(SystemInformation), __uuidof(ISystemInformation), system);
    VARIANT_BOOL required = VARIANT_FALSE;
    if (SUCCEEDED(result) && system) {
      result = system->get_RebootRequired(&required);
    }
    if (FAILED(result)) {
      log::Log(log::kWarn, log::kKiosk, "os updates: Windows does not tell whether it waits for a restart (0x%08lx)",
               static_cast<unsigned long>(result));
      return std::nullopt;
    }
    return required != VARIANT_FALSE;
  }

  void FinishWithoutInstalling() {
    result_.code = entries_.empty() ? RunCode::kNothing : RunCode::kDone;
    result_.restartRequired = SystemWaitsForRestart();
    if (install_ && !entries_.empty()) {
      log::Log(log::kWarn, log::kKiosk, "os updates: none of the pending updates can install without a person");
      result_.code = RunCode::kNothing;
    }
    const LockedUpdateState state;
    state->restartRequired = result_.restartRequired.value_or(state->restartRequired);
  }

  bool Download() {
    ComPtr<IUpdateDownloader> downloader;
    HRESULT made = session_->CreateUpdateDownloader(downloader.Put());
    made = Given(made, downloader);
    if (!Check("downloader", SUCCEEDED(made) ? downloader->put_Updates(collection_.Get()) : made)) {
      return false;
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: downloading %zu", chosen_.size());
    SharedOperation operation;
    if (!Begin(kDownloadFailed, 0, kHalf, operation)) {
      return false;
    }
    const ComPtr<DownloadProgressed> progressed(new DownloadProgressed(operation));
    const ComPtr<DownloadCompleted> completed(new DownloadCompleted(operation));
    ComPtr<IDownloadJob> job;
    const HRESULT begun = downloader->BeginDownload(progressed.Get(), completed.Get(), VARIANT{}, job.Put());
    if (!Check(kDownloadFailed, Given(begun, job)) || !Await(job, *operation)) {
      return false;
    }
    ComPtr<IDownloadResult> result;
    const HRESULT ended = downloader->EndDownload(job.Get(), result.Put());
    job->CleanUp();
    const HRESULT outcome = Given(ended, result);
    return Check(kDownloadFailed, SUCCEEDED(outcome) ? Outcome(result.Get()) : outcome);
  }

  bool OpenInstaller(ComPtr<IUpdateInstaller>& installer) {
    HRESULT made = session_->CreateUpdateInstaller(installer.Put());
    made = Given(made, installer);
    VARIANT_BOOL busy = VARIANT_FALSE;
    if (!Check("installer", SUCCEEDED(made) ? installer->get_IsBusy(&busy) : made)) {
      return false;
    }
    if (busy != VARIANT_FALSE) {
      RunFailed(result_, "busy");
      return false;
    }
    return Check("installer", installer->put_AllowSourcePrompts(VARIANT_FALSE)) &&
           Check("installer", installer->put_Updates(collection_.Get()));
  }

  bool Install() {
    ComPtr<IUpdateInstaller> installer;
    SharedOperation operation;
    if (!OpenInstaller(installer)) {
      return false;
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: installing %zu", chosen_.size());
    if (!Begin(kInstallFailed, kHalf, kHalf, operation)) {
      return false;
    }
    const ComPtr<InstallationProgressed> progressed(new InstallationProgressed(operation));
    const ComPtr<InstallationCompleted> completed(new InstallationCompleted(operation));
    ComPtr<IInstallationJob> job;
    const HRESULT begun = installer->BeginInstall(progressed.Get(), completed.Get(), VARIANT{}, job.Put());
    if (!Check(kInstallFailed, Given(begun, job)) || !Await(job, *operation)) {
      return false;
    }
    const HRESULT ended = installer->EndInstall(job.Get(), installed_.Put());
    job->CleanUp();
    const HRESULT outcome = Given(ended, installed_);
    if (!Check(kInstallFailed, outcome)) {
      return false;
    }
    DropInstalled();
    return Check(kInstallFailed, Outcome(installed_.Get()));
  }

  // Results stand in the order of the collection. What did not install stays pending.
  void DropInstalled() {
    for (std::size_t position = chosen_.size(); position-- > 0;) {
      ComPtr<IUpdateInstallationResult> result;
      HRESULT read = installed_->GetUpdateResult(static_cast<LONG>(position), result.Put());
      OperationResultCode code = orcFailed;
      if (SUCCEEDED(read = Given(read, result))) {
        read = result->get_ResultCode(&code);
      }
      const auto entry = entries_.begin() + static_cast<std::ptrdiff_t>(chosen_[position]);
      if (SUCCEEDED(read) && code == orcSucceeded) {
        entries_.erase(entry);
        continue;
      }
      log::Log(log::kWarn, log::kKiosk, "os updates: \"%s\" was not installed (0x%08lx)", entry->title.c_str(),
               static_cast<unsigned long>(SUCCEEDED(read) ? FailureOf(result.Get()) : read));
    }
    result_.pending = static_cast<int>(entries_.size());
    const LockedUpdateState state;
    state->pending = entries_;
  }

  static HRESULT FailureOf(IUpdateInstallationResult* result) {
    LONG detail = S_OK;
    const HRESULT read = result->get_HResult(&detail);
    return FAILED(read) ? read : detail;
  }

  void FinishInstalled() {
    VARIANT_BOOL required = VARIANT_FALSE;
    const HRESULT read = installed_->get_RebootRequired(&required);
    result_.restartRequired =
        SUCCEEDED(read) && required != VARIANT_FALSE ? std::optional(true) : SystemWaitsForRestart();
    BeginProgressStage(100);
    {
      const LockedUpdateState state;
      state->installing = false;
      state->restartRequired = result_.restartRequired.value_or(state->restartRequired);
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: installed; %d still pending%s", *result_.pending,
             result_.restartRequired.value_or(false) ? ", restart required" : "");
  }

  static constexpr char kSearchFailed[] = "search_failed";
  static constexpr char kDownloadFailed[] = "download_failed";
  static constexpr char kInstallFailed[] = "install_failed";

  const bool install_;
  RunResult& result_;
  ComPtr<IUpdateSession> session_;
  ComPtr<IUpdateSearcher> searcher_;
  ComPtr<IUpdateCollection> found_;
  ComPtr<IUpdateCollection> collection_;  // what is to be installed
  ComPtr<IInstallationResult> installed_;
  std::vector<PendingUpdate> entries_;
  std::vector<std::size_t> chosen_;  // for each place in the collection, which entry it is
};

}  // namespace

RunResult RunUpdates(bool install) {
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
  Run(install, result).Perform();
  return result;
}

void RunFailed(RunResult& result, const std::string& text) {
  result.code = RunCode::kFailed;
  result.error = text;
  log::Log(log::kError, log::kKiosk, "os updates: %s", text.c_str());
  const LockedUpdateState state;
  state->checking = false;
  state->installing = false;
  state->lastError = text;
}

}  // namespace kiosk::updates
