#include "updates/install_pass.h"

#include "log/log.h"
#include "updates/agent_results.h"

#include <cstddef>
#include <utility>

namespace kiosk::updates {
namespace {

using win32::ComPtr;

// The failure of the update at `position` in the result of a download or an installation; S_OK when there is none.
template <typename Each, typename Result>
HRESULT OutcomeAt(const ComPtr<Result>& all, std::size_t position, bool withErrorsIsFine) {
  ComPtr<Each> result;
  OperationResultCode code = orcFailed;
  HRESULT read = all->GetUpdateResult(static_cast<LONG>(position), result.Put());
  read = Given(read, result);
  if (FAILED(read) || FAILED(read = result->get_ResultCode(&code))) {
    return read;
  }
  if (code == orcSucceeded || (withErrorsIsFine && code == orcSucceededWithErrors)) {
    return S_OK;
  }
  LONG detail = E_FAIL;
  read = result->get_HResult(&detail);
  return FAILED(read) ? read : FAILED(detail) ? detail : E_FAIL;
}

class Pass {
 public:
  Pass(AgentSteps& steps, IUpdateSession* session, const ComPtr<IUpdateCollection>& collection,
       std::vector<FoundUpdate*> updates, const PassProgress& progress)
      : steps_(steps), session_(session), collection_(collection), updates_(std::move(updates)), progress_(progress) {}

  bool Perform(bool& restartRequired) {
    if (!Fill() || !Download() || !Install()) {
      return false;
    }
    VARIANT_BOOL asked = VARIANT_FALSE;
    restartRequired |= SUCCEEDED(installed_->get_RebootRequired(&asked)) && asked != VARIANT_FALSE;
    return steps_.Check(kInstallFailed, Outcome(installed_.Get()));
  }

 private:
  bool Fill() {
    LONG position = 0;
    for (const FoundUpdate* update : updates_) {
      if (!steps_.Check("collection", collection_->Add(update->update.Get(), &position))) {
        return false;
      }
    }
    return true;
  }

  bool Download() {
    ComPtr<IUpdateDownloader> downloader;
    HRESULT made = session_->CreateUpdateDownloader(downloader.Put());
    made = Given(made, downloader);
    if (!steps_.Check("downloader", SUCCEEDED(made) ? downloader->put_Updates(collection_.Get()) : made)) {
      return false;
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: downloading %zu", updates_.size());
    SharedOperation operation;
    if (!steps_.Begin(kDownloadFailed, progress_.start, progress_.downloaded - progress_.start, operation)) {
      return false;
    }
    const ComPtr<DownloadProgressed> progressed(new DownloadProgressed(operation));
    const ComPtr<DownloadCompleted> completed(new DownloadCompleted(operation));
    ComPtr<IDownloadJob> job;
    const HRESULT begun = downloader->BeginDownload(progressed.Get(), completed.Get(), VARIANT{}, job.Put());
    ComPtr<IDownloadResult> result;
    return steps_.Check(kDownloadFailed, Given(begun, job)) &&
           steps_.Finish(kDownloadFailed, *operation, job, downloader, &IUpdateDownloader::EndDownload, result) &&
           steps_.Check(kDownloadFailed, Outcome(result.Get())) && LeaveOutWhatDidNotCome(result);
  }

  // Windows would refuse to install anything together with an update that is not there.
  bool LeaveOutWhatDidNotCome(const ComPtr<IDownloadResult>& result) {
    for (std::size_t position = updates_.size(); position-- > 0;) {
      const HRESULT outcome = OutcomeAt<IUpdateDownloadResult>(result, position, true);
      if (SUCCEEDED(outcome)) {
        continue;
      }
      log::Log(log::kWarn, log::kKiosk, "os updates: \"%s\" was not downloaded (%s)",
               updates_[position]->entry.title.c_str(), win32::HresultText(outcome).c_str());
      if (updates_.size() == 1) {
        return steps_.Check(kDownloadFailed, outcome);
      }
      if (!steps_.Check("collection", collection_->RemoveAt(static_cast<LONG>(position)))) {
        return false;
      }
      updates_.erase(updates_.begin() + static_cast<std::ptrdiff_t>(position));
    }
    return true;
  }

  bool OpenInstaller(ComPtr<IUpdateInstaller>& installer) {
    HRESULT made = session_->CreateUpdateInstaller(installer.Put());
    made = Given(made, installer);
    VARIANT_BOOL busy = VARIANT_FALSE;
    if (!steps_.Check("installer", SUCCEEDED(made) ? installer->get_IsBusy(&busy) : made)) {
      return false;
    }
    if (busy != VARIANT_FALSE) {
      return steps_.Fail("busy");
    }
    return steps_.Check("installer", installer->put_AllowSourcePrompts(VARIANT_FALSE)) &&
           steps_.Check("installer", installer->put_Updates(collection_.Get()));
  }

  bool Install() {
    ComPtr<IUpdateInstaller> installer;
    SharedOperation operation;
    if (!OpenInstaller(installer)) {
      return false;
    }
    log::Log(log::kNotice, log::kKiosk, "os updates: installing %zu", updates_.size());
    if (!steps_.Begin(kInstallFailed, progress_.downloaded, progress_.end - progress_.downloaded, operation)) {
      return false;
    }
    const ComPtr<InstallationProgressed> progressed(new InstallationProgressed(operation));
    const ComPtr<InstallationCompleted> completed(new InstallationCompleted(operation));
    ComPtr<IInstallationJob> job;
    const HRESULT begun = installer->BeginInstall(progressed.Get(), completed.Get(), VARIANT{}, job.Put());
    if (!steps_.Check(kInstallFailed, Given(begun, job)) ||
        !steps_.Finish(kInstallFailed, *operation, job, installer, &IUpdateInstaller::EndInstall, installed_)) {
      return false;
    }
    MarkInstalled();
    return true;
  }

  // Results stand in the order of the collection.
  void MarkInstalled() {
    for (std::size_t position = 0; position < updates_.size(); ++position) {
      const HRESULT outcome = OutcomeAt<IUpdateInstallationResult>(installed_, position, false);
      updates_[position]->installed = SUCCEEDED(outcome);
      if (FAILED(outcome)) {
        log::Log(log::kWarn, log::kKiosk, "os updates: \"%s\" was not installed (%s)",
                 updates_[position]->entry.title.c_str(), win32::HresultText(outcome).c_str());
      }
    }
  }

  AgentSteps& steps_;
  IUpdateSession* session_;
  const ComPtr<IUpdateCollection>& collection_;
  std::vector<FoundUpdate*> updates_;  // as they stand in the collection
  const PassProgress& progress_;
  ComPtr<IInstallationResult> installed_;
};

}  // namespace

bool InstallTogether(AgentSteps& steps, IUpdateSession* session, const ComPtr<IUpdateCollection>& collection,
                     std::vector<FoundUpdate*> updates, const PassProgress& progress, bool& restartRequired) {
  return Pass(steps, session, collection, std::move(updates), progress).Perform(restartRequired);
}

}  // namespace kiosk::updates
