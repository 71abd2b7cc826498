// What the update agent calls while it works for us: for each operation an object for its progress and one for its end.
//
// The agent calls from threads of its own, until it has released the object, even after the run is over: so an object
// holds nothing of the run but a counted share of the operation's record.
#pragma once

#include "updates/agent_interfaces.h"
#include "updates/update_state.h"
#include "win32/com.h"

#include <atomic>
#include <memory>
#include <utility>

namespace kiosk::updates {

// One asynchronous operation of the agent. Never changed once the operation has begun.
struct Operation {
  win32::KernelHandle done;  // manual reset; set when the operation is over
  ProgressStage stage = 0;
  int base = 0;  // the agent's 0 to 100 percent become `base` to `base + span`
  int span = 0;
};
using SharedOperation = std::shared_ptr<const Operation>;

// Counts references, and says that it may be called from any thread as it is.
template <typename Interface>
class AgentCallback : public Interface {
 public:
  explicit AgentCallback(SharedOperation operation) noexcept : operation_(std::move(operation)) {}
  AgentCallback(const AgentCallback&) = delete;
  AgentCallback& operator=(const AgentCallback&) = delete;
  virtual ~AgentCallback() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID id, void** object) noexcept override {
    if (object == nullptr) {
      return E_POINTER;
    }
    // An agile object has no methods beyond those of every object, so one pointer serves for all three.
    const bool known = IsEqualIID(id, __uuidof(Interface)) != 0 || IsEqualIID(id, __uuidof(IUnknown)) != 0 ||
                       IsEqualIID(id, __uuidof(IAgileObject)) != 0;
    *object = known ? static_cast<Interface*>(this) : nullptr;
    if (known) {
      AddRef();
    }
    return known ? S_OK : E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() noexcept override { return references_.fetch_add(1) + 1; }
  ULONG STDMETHODCALLTYPE Release() noexcept override {
    const ULONG left = references_.fetch_sub(1) - 1;
    if (left == 0) {
      delete this;
    }
    return left;
  }

 protected:
  [[nodiscard]] const Operation& Shared() const noexcept { return *operation_; }

 private:
  SharedOperation operation_;
  std::atomic<ULONG> references_{1};
};

template <typename Interface, typename Job, typename Args>
class CompletedCallback final : public AgentCallback<Interface> {
 public:
  using AgentCallback<Interface>::AgentCallback;

  HRESULT STDMETHODCALLTYPE Invoke(Job* /*job*/, Args* /*args*/) noexcept override {
    SetEvent(this->Shared().done.Get());
    return S_OK;
  }
};

template <typename Interface, typename Job, typename Args, typename Progress>
class ProgressCallback final : public AgentCallback<Interface> {
 public:
  using AgentCallback<Interface>::AgentCallback;

  HRESULT STDMETHODCALLTYPE Invoke(Job* /*job*/, Args* args) noexcept override {
    win32::ComPtr<Progress> progress;
    LONG percent = 0;
    if (args != nullptr && SUCCEEDED(args->get_Progress(progress.Put())) && progress &&
        SUCCEEDED(progress->get_PercentComplete(&percent))) {
      const Operation& operation = this->Shared();
      const int clamped = static_cast<int>(percent < 0 ? 0 : percent > 100 ? 100 : percent);
      ReportProgress(operation.stage, operation.base + clamped * operation.span / 100);
    }
    return S_OK;
  }
};

using SearchCompleted = CompletedCallback<ISearchCompletedCallback, ISearchJob, ISearchCompletedCallbackArgs>;
using DownloadCompleted = CompletedCallback<IDownloadCompletedCallback, IDownloadJob, IDownloadCompletedCallbackArgs>;
using InstallationCompleted =
    CompletedCallback<IInstallationCompletedCallback, IInstallationJob, IInstallationCompletedCallbackArgs>;
using DownloadProgressed = ProgressCallback<IDownloadProgressChangedCallback, IDownloadJob,
                                            IDownloadProgressChangedCallbackArgs, IDownloadProgress>;
using InstallationProgressed = ProgressCallback<IInstallationProgressChangedCallback, IInstallationJob,
                                                IInstallationProgressChangedCallbackArgs, IInstallationProgress>;

}  // namespace kiosk::updates
