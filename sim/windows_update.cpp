// Written in C style, see sim/com.h.
#define CINTERFACE
#include <initguid.h>

#include "sim/update_objects.h"

#include "sim/clock.h"
#include "sim/clock_internal.h"
#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <oleauto.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cwchar>

namespace sim {
namespace {

DEFINE_GUID(kIidInstaller4, 0xef8208ea, 0x2304, 0x492d, 0x91, 0x09, 0x23, 0x81, 0x3b, 0x09, 0x58, 0xe1);
DEFINE_GUID(kCollectionClass, 0x13639463, 0x00db, 0x4646, 0x80, 0x3d, 0x52, 0x80, 0x26, 0x14, 0x0d, 0x88);
DEFINE_GUID(kSearchDone, 0x88aee058, 0xd4b0, 0x4725, 0xa2, 0xf1, 0x81, 0x4a, 0x67, 0xae, 0x96, 0x4c);
DEFINE_GUID(kDownloadDone, 0x77254866, 0x9f5b, 0x4c8e, 0xb9, 0xe2, 0xc7, 0x7a, 0x85, 0x30, 0xd6, 0x4b);
DEFINE_GUID(kDownloadMoved, 0x8c3f1cdd, 0x6173, 0x4591, 0xae, 0xbd, 0xa5, 0x6a, 0x53, 0xca, 0x77, 0xc1);
DEFINE_GUID(kInstallDone, 0x45f4f6f3, 0xd602, 0x4f98, 0x9a, 0x8a, 0x3e, 0xfa, 0x15, 0x2a, 0xd2, 0xd3);
DEFINE_GUID(kInstallMoved, 0xe01402d5, 0xf8da, 0x43ba, 0xa0, 0x12, 0x38, 0x89, 0x4b, 0xd0, 0x48, 0xf1);

std::atomic<int> liveOperations{0};

using SearchOutcome = Object<ISearchResult, Outcome>;
ISearchResultVtbl searchResultTable = {COM_BASICS(SearchOutcome),
                                       .get_ResultCode = COM_GET(SearchOutcome::Of(self).code),
                                       .get_Updates = COM_GET(NewCollection(SearchOutcome::Of(self).updates))};
using OneDownload = Object<IUpdateDownloadResult, Outcome>;
IUpdateDownloadResultVtbl oneDownloadTable = {COM_BASICS(OneDownload),
                                              .get_HResult = COM_GET(OneDownload::Of(self).failure),
                                              .get_ResultCode = COM_GET(OneDownload::Of(self).code)};
using OneInstallation = Object<IUpdateInstallationResult, Outcome>;
IUpdateInstallationResultVtbl oneInstallationTable = {COM_BASICS(OneInstallation),
                                                      .get_HResult = COM_GET(OneInstallation::Of(self).failure),
                                                      .get_ResultCode = COM_GET(OneInstallation::Of(self).code)};
// What became of one update of an operation.
template <typename One, typename Interface, typename Table>
HRESULT ResultAt(const Outcome& all, LONG index, Table* table, const wchar_t* done, const wchar_t* failure,
                 Interface** out) {
  const std::wstring& update = all.updates.at(static_cast<std::size_t>(index));
  *out = new One(table, NumberOf(update, done) != 0 ? orcSucceeded : orcFailed,
                 static_cast<HRESULT>(NumberOf(update, failure)));
  return S_OK;
}
using DownloadOutcome = Object<IDownloadResult, Outcome>;
IDownloadResultVtbl downloadResultTable = {
    COM_BASICS(DownloadOutcome), .get_HResult = COM_GET(DownloadOutcome::Of(self).failure),
    .get_ResultCode = COM_GET(DownloadOutcome::Of(self).code),
    .GetUpdateResult = [](IDownloadResult* self, LONG index, IUpdateDownloadResult** out) CALL -> HRESULT {
      return ResultAt<OneDownload>(DownloadOutcome::Of(self), index, &oneDownloadTable, L"Downloaded",
                                   L"DownloadFailure", out);
    }};
using InstallOutcome = Object<IInstallationResult, Outcome>;
IInstallationResultVtbl installResultTable = {
    COM_BASICS(InstallOutcome), .get_HResult = COM_GET(InstallOutcome::Of(self).failure),
    .get_RebootRequired = COM_GET(Flag(InstallOutcome::Of(self).reboot)),
    .get_ResultCode = COM_GET(InstallOutcome::Of(self).code),
    .GetUpdateResult = [](IInstallationResult* self, LONG index, IUpdateInstallationResult** out) CALL -> HRESULT {
      return ResultAt<OneInstallation>(InstallOutcome::Of(self), index, &oneInstallationTable, L"Installed", L"Failure",
                                       out);
    }};

// What the product's callbacks look like from here.
struct Callback {
  struct Table {
    HRESULT(CALL* QueryInterface)(Callback* self, REFIID id, void** out);
    ULONG(CALL* AddRef)(Callback* self);
    ULONG(CALL* Release)(Callback* self);
    HRESULT(CALL* Invoke)(Callback* self, void* job, void* args);
  } const* table;
};

// As the agent does: it asks for the interface that it will call, and wants it callable from its own threads.
Callback* Accept(IUnknown* object, REFIID id) {
  void* callback = nullptr;
  void* agile = nullptr;
  if (object == nullptr || FAILED(object->lpVtbl->QueryInterface(object, id, &callback)) ||
      FAILED(object->lpVtbl->QueryInterface(object, IID_IAgileObject, &agile))) {
    Violation("the update agent was given a callback of another kind, or one of a single apartment");
    return nullptr;
  }
  static_cast<Callback*>(agile)->table->Release(static_cast<Callback*>(agile));
  return static_cast<Callback*>(callback);
}

using DownloadPercent = Object<IDownloadProgress, LONG>;
IDownloadProgressVtbl downloadProgressTable = {COM_BASICS(DownloadPercent),
                                               .get_PercentComplete = COM_GET(DownloadPercent::Of(self))};
using InstallPercent = Object<IInstallationProgress, LONG>;
IInstallationProgressVtbl installProgressTable = {COM_BASICS(InstallPercent),
                                                  .get_PercentComplete = COM_GET(InstallPercent::Of(self))};

HRESULT FailureOf(const Field<>& field) { return static_cast<HRESULT>(field.Get()); }

// The arguments of a progress: the methods of a dispatch object, then the progress.
struct ProgressArgs {
  struct Table {
    void* dispatch[7];
    HRESULT(CALL* get_Progress)(ProgressArgs* self, void** out);
  } const* table;
  AgentStage kind;
  LONG percent;
};
constexpr ProgressArgs::Table kProgressArgs = {{}, [](ProgressArgs* self, void** out) CALL -> HRESULT {
                                                 if (self->kind == kDownload) {
                                                   *out = new DownloadPercent(&downloadProgressTable, self->percent);
                                                 } else {
                                                   *out = new InstallPercent(&installProgressTable, self->percent);
                                                 }
                                                 return S_OK;
                                               }};

// One asynchronous operation: the state of its job object, whose tables differ in where two methods stand.
struct Job {
  Job(AgentStage what, Areas with, Callback* atEnd, Callback* onTheWay)
      : kind(what), completed(atEnd), progress(onTheWay), outcome{.updates = std::move(with)} {}
  Job(const Job&) = delete;
  Job& operator=(const Job&) = delete;
  ~Job() {
    CloseHandle(abort);
    for (Callback* each : {completed, progress}) {
      if (each != nullptr) {
        each->table->Release(each);
      }
    }
  }
  // Waits in three parts, telling the progress in between (beyond both ends too); false when aborted.
  bool Pass(void* job) {
    const DWORD duration = agent.duration[kind].Get();
    for (const LONG percent : {-5, 50, 150}) {
      if (Wait(abort, duration == INFINITE ? INFINITE : duration / 3) == WAIT_OBJECT_0) {
        return false;
      }
      if (progress != nullptr) {
        ProgressArgs args{&kProgressArgs, kind, percent};
        progress->table->Invoke(progress, job, &args);
      }
    }
    return true;
  }

  void Work(void* job) {
    outcome.failure = FailureOf(agent.fail[kind]);
    if (!Pass(job)) {
      outcome.code = orcAborted;
    } else if (outcome.failure != S_OK) {
      outcome.code = orcFailed;
    } else if (kind == kSearch) {
      FindUpdates(outcome);
    } else {
      WorkOn(outcome, kind == kInstall);
    }
    constexpr const char* kDone[] = {"searched ", "downloaded ", "installed "};
    NoteWork(kDone[kind] + std::to_string(outcome.updates.size()) + "\n");
    finished = true;
    completed->table->Invoke(completed, job, nullptr);
  }

  AgentStage kind;
  HANDLE abort = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  Callback* completed;
  Callback* progress;
  std::atomic<bool> finished{false};
  Outcome outcome;
};
using JobObject = Object<IUnknown, Job>;
template <typename Interface>
Job& JobOf(Interface* self) {
  return JobObject::Of(reinterpret_cast<IUnknown*>(self));
}

HRESULT CALL CleanUp(IUnknown* self) {
  if (!JobOf(self).finished) {
    Violation("a job is cleaned up that has not ended: the call would wait for it");
  }
  return S_OK;
}
HRESULT CALL RequestAbort(IUnknown* self) {
  if (agent.stubborn.Get() == 0) {
    Signal(JobOf(self).abort);
  }
  return S_OK;
}
struct JobTable {
  IUnknownVtbl unknown;
  void* others[10];
};
static_assert(offsetof(ISearchJobVtbl, CleanUp) == 9 * sizeof(void*) &&
              offsetof(ISearchJobVtbl, RequestAbort) == 10 * sizeof(void*) &&
              offsetof(IDownloadJobVtbl, CleanUp) == 10 * sizeof(void*) &&
              offsetof(IDownloadJobVtbl, RequestAbort) == 12 * sizeof(void*) &&
              offsetof(IInstallationJobVtbl, RequestAbort) == 12 * sizeof(void*));
void* const kCleanUp = reinterpret_cast<void*>(&CleanUp);
void* const kAbort = reinterpret_cast<void*>(&RequestAbort);
JobTable searchJobTable = {{COM_BASICS(JobObject)},
                           {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, kCleanUp, kAbort}};
JobTable workJobTable = {{COM_BASICS(JobObject)},
                         {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, kCleanUp, nullptr, kAbort}};

DWORD WINAPI RunJob(void* raw) {
  auto* const job = static_cast<JobObject*>(raw);
  job->state.Work(job);
  JobObject::Drop(job);
  --liveOperations;
  return 0;
}

template <typename Interface>
HRESULT Begin(AgentStage kind, const Areas& updates, Callback* done, Callback* moved, Interface** out) {
  for (const std::wstring& each : updates) {
    if (NumberOf(each, L"TermsAccepted") == 0) {
      Violation("an update is to be worked on whose terms nobody accepted");
    }
  }
  // The page of InstallationImpact: WU_E_EXCLUSIVE_INSTALL_CONFLICT, and no update is installed.
  if (kind == kInstall && updates.size() > 1 && std::any_of(updates.begin(), updates.end(), [](const auto& each) {
        return NumberOf(each, L"Impact") == iiRequiresExclusiveHandling;
      })) {
    return static_cast<HRESULT>(0x80240019);
  }
  auto* const job =
      new JobObject(&(kind == kSearch ? searchJobTable : workJobTable).unknown, kind, updates, done, moved);
  if (const HRESULT failure = FailureOf(agent.failBegin[kind]); failure != S_OK) {
    JobObject::Drop(job);
    return failure;
  }
  ++liveOperations;
  JobObject::AddReference(job);
  CloseHandle(sim_CreateThread(nullptr, 0, RunJob, job, 0, nullptr));
  *out = reinterpret_cast<Interface*>(static_cast<IUnknown*>(job));
  return S_OK;
}

template <typename ResultType, typename Interface, typename Table, typename JobInterface>
HRESULT End(JobInterface* raw, Table* table, Interface** out) {
  const Job& job = JobOf(raw);
  if (!job.finished) {
    Violation("an operation of the update agent is ended before it is over: the call would wait");
    return E_FAIL;
  }
  if (job.kind == kSearch && job.outcome.failure != S_OK) {
    return job.outcome.failure;
  }
  *out = new ResultType(table, job.outcome);
  return S_OK;
}

using Searcher = Object<IUpdateSearcher, Stateless>;
IUpdateSearcherVtbl searcherTable = {
    COM_BASICS(Searcher),
    .BeginSearch = [](IUpdateSearcher*, BSTR criteria, IUnknown* done, VARIANT, ISearchJob** out) CALL -> HRESULT {
      if (std::wstring(criteria) != L"IsInstalled=0 and IsHidden=0 and Type='Software'") {
        Violation("the search is not for missing software: %s", Narrow(criteria).c_str());
      }
      return Begin(kSearch, {}, Accept(done, kSearchDone), nullptr, out);
    },
    .EndSearch = [](IUpdateSearcher*, ISearchJob* job, ISearchResult** out)
                     CALL { return End<SearchOutcome>(job, &searchResultTable, out); }};

// A downloader or an installer: what it is to work on.
#define PUT_UPDATES(type)                                                   \
  .put_Updates = [](auto* self, IUpdateCollection* value) CALL -> HRESULT { \
    type::Of(self) = AreasOf(value);                                        \
    return S_OK;                                                            \
  }
using Downloader = Object<IUpdateDownloader, Areas>;
IUpdateDownloaderVtbl downloaderTable = {
    COM_BASICS(Downloader), PUT_UPDATES(Downloader),
    .BeginDownload =
        [](IUpdateDownloader* self, IUnknown* moved, IUnknown* done, VARIANT, IDownloadJob** out) CALL {
          return Begin(kDownload, Downloader::Of(self), Accept(done, kDownloadDone), Accept(moved, kDownloadMoved),
                       out);
        },
    .EndDownload = [](IUpdateDownloader*, IDownloadJob* job, IDownloadResult** out)
                       CALL { return End<DownloadOutcome>(job, &downloadResultTable, out); }};
using Installer = Object<IUpdateInstaller, Areas, IID_IUpdateInstaller, kIidInstaller4>;

// Its page: to be called once before a restart, and a second call may make the update fail.
HRESULT CALL Commit(IUpdateInstaller*, DWORD flags) {
  if (flags != 0 || agent.committed.Get() != 0) {
    Violation("updates are committed with flags, or twice before one restart");
  }
  sim_Sleep(agent.durationCommit.Get());
  const HRESULT failure = FailureOf(agent.failCommit);
  NoteWork("committed\n");
  return failure != S_OK ? failure : HRESULT_FROM_WIN32(Change<DWORD>("Commit", L"", []() -> DWORD {
    agent.committed.Set(1);
    return ERROR_SUCCESS;
  }));
}

// Versions two to four of the interface follow the first one's slots.
struct InstallerTable {
  IUpdateInstallerVtbl first;
  void* second[4];
  HRESULT(CALL* Commit)(IUpdateInstaller* self, DWORD flags);
};
static_assert(offsetof(InstallerTable, Commit) == 32 * sizeof(void*));
InstallerTable installerTable = {
    .first = {COM_BASICS(Installer), PUT_UPDATES(Installer),
              .BeginInstall =
                  [](IUpdateInstaller* self, IUnknown* moved, IUnknown* done, VARIANT, IInstallationJob** out) CALL {
                    return Begin(kInstall, Installer::Of(self), Accept(done, kInstallDone),
                                 Accept(moved, kInstallMoved), out);
                  },
              .EndInstall = [](IUpdateInstaller*, IInstallationJob* job, IInstallationResult** out)
                                CALL { return End<InstallOutcome>(job, &installResultTable, out); },
              .get_IsBusy = COM_GET(Flag(agent.installerBusy.Get())),
              .put_AllowSourcePrompts = [](IUpdateInstaller*, VARIANT_BOOL allow) CALL -> HRESULT {
                if (allow != VARIANT_FALSE) {
                  Violation("an installation may ask for a source, and nobody is there to answer");
                }
                return S_OK;
              }},
    .second = {},
    .Commit = Commit};

// Makes an object for the product unless its stage is to fail.
template <typename Made, typename Interface, typename Table>
HRESULT Make(const Field<>& stage, Interface** out, Table* table) {
  const HRESULT failure = FailureOf(stage);
  *out = failure == S_OK ? new Made(table) : nullptr;
  return failure;
}

using Session = Object<IUpdateSession, Stateless, IID_IUpdateSession>;
IUpdateSessionVtbl sessionTable = {
    COM_BASICS(Session),
    .put_ClientApplicationID = [](IUpdateSession*, BSTR name) CALL -> HRESULT {
      agent.client.Set(name);
      return S_OK;
    },
    .CreateUpdateSearcher = [](IUpdateSession*, IUpdateSearcher** out)
                                CALL { return Make<Searcher>(agent.failSearcher, out, &searcherTable); },
    .CreateUpdateDownloader = [](IUpdateSession*, IUpdateDownloader** out)
                                  CALL { return Make<Downloader>(agent.failDownloader, out, &downloaderTable); },
    .CreateUpdateInstaller = [](IUpdateSession*, IUpdateInstaller** out)
                                 CALL { return Make<Installer>(agent.failInstaller, out, &installerTable.first); }};

using System = Object<ISystemInformation, Stateless, IID_ISystemInformation>;
ISystemInformationVtbl systemTable = {COM_BASICS(System),
                                      .get_RebootRequired = COM_GET(Flag(agent.rebootRequired.Get()))};

// Hands an object out unless its stage is to fail.
template <typename Hand>
HRESULT Unless(const Field<>& stage, Hand hand) {
  const HRESULT failure = FailureOf(stage);
  return failure != S_OK ? failure : hand();
}

#define CREATES(stage, expression) [](REFIID id, void** out) { return Unless(stage, [&] { return expression; }); }
const bool registered =
    RegisterComClass(
        {&CLSID_UpdateSession, CREATES(agent.failSession, HandOut(new Session(&sessionTable), id, out))}) &&
    RegisterComClass({&kCollectionClass, CREATES(agent.failCollection, CreateCollection(id, out))}) &&
    RegisterComClass({&CLSID_UpdateInstaller,
                      CREATES(agent.failInstaller, HandOut(new Installer(&installerTable.first), id, out))}) &&
    RegisterComClass({&CLSID_SystemInformation, CREATES(agent.failSystem, HandOut(new System(&systemTable), id, out))});

}  // namespace

int LiveAgentOperations() {
  static_cast<void>(registered);
  return liveOperations;
}

}  // namespace sim
