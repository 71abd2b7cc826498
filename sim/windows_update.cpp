// Written in C style, see sim/com.h.
#define CINTERFACE
#include <initguid.h>

#include "sim/windows_update.h"

#include "sim/clock.h"
#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <oleauto.h>
#include <wuapi.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cwchar>
#include <mutex>
#include <vector>

// NOLINTNEXTLINE(readability-identifier-naming): what SIM makes of the name
extern "C" HANDLE WINAPI sim_CreateThread(LPSECURITY_ATTRIBUTES security, SIZE_T stack, LPTHREAD_START_ROUTINE body,
                                          LPVOID argument, DWORD flags, LPDWORD id);

namespace sim {
namespace {

DEFINE_GUID(kIidUpdate2, 0x144fe9b0, 0xd23d, 0x4a8b, 0x86, 0x34, 0xfb, 0x44, 0x57, 0x53, 0x3b, 0x7a);
DEFINE_GUID(kIidUpdate3, 0x112eda6b, 0x95b3, 0x476f, 0x9d, 0x90, 0xae, 0xe8, 0x2c, 0x6b, 0x81, 0x81);
DEFINE_GUID(kCollectionClass, 0x13639463, 0x00db, 0x4646, 0x80, 0x3d, 0x52, 0x80, 0x26, 0x14, 0x0d, 0x88);
DEFINE_GUID(kSearchDone, 0x88aee058, 0xd4b0, 0x4725, 0xa2, 0xf1, 0x81, 0x4a, 0x67, 0xae, 0x96, 0x4c);
DEFINE_GUID(kDownloadDone, 0x77254866, 0x9f5b, 0x4c8e, 0xb9, 0xe2, 0xc7, 0x7a, 0x85, 0x30, 0xd6, 0x4b);
DEFINE_GUID(kDownloadMoved, 0x8c3f1cdd, 0x6173, 0x4591, 0xae, 0xbd, 0xa5, 0x6a, 0x53, 0xca, 0x77, 0xc1);
DEFINE_GUID(kInstallDone, 0x45f4f6f3, 0xd602, 0x4f98, 0x9a, 0x8a, 0x3e, 0xfa, 0x15, 0x2a, 0xd2, 0xd3);
DEFINE_GUID(kInstallMoved, 0xe01402d5, 0xf8da, 0x43ba, 0xa0, 0x12, 0x38, 0x89, 0x4b, 0xd0, 0x48, 0xf1);

#define UNKNOWN(type) .QueryInterface = type::Query, .AddRef = type::AddReference, .Release = type::Drop
#define CALL STDMETHODCALLTYPE

const std::wstring kArea = kUpdateArea;

DWORD Setting(const std::wstring& name) { return ReadNumber(kArea, name).value_or(0); }
HRESULT FailureOf(const std::wstring& stage) { return static_cast<HRESULT>(Setting(L"Fail " + stage)); }

std::mutex workMutex;
std::string work;
std::atomic<int> liveOperations{0};

// An update, by the area that describes it.
struct Update : ComObject<Update, IUpdate> {
  explicit Update(std::wstring place);
  static bool Has(REFIID id) {
    return IsEqualIID(id, IID_IUpdate) || IsEqualIID(id, kIidUpdate2) || IsEqualIID(id, kIidUpdate3);
  }
  static const std::wstring& Area(IUpdate* self) { return static_cast<Update*>(self)->area; }
  static DWORD Number(IUpdate* self, const wchar_t* name) { return ReadNumber(Area(self), name).value_or(0); }
  std::wstring area;
};

// A simulated object over its state; those that are asked for by an identifier have their own types.
template <typename Interface, typename State>
struct Object : ComObject<Object<Interface, State>, Interface> {
  template <typename... Parts>
  explicit Object(decltype(Interface::lpVtbl) table, Parts... parts)
      : ComObject<Object, Interface>(table), state{parts...} {}
  static bool Has(REFIID) { return false; }
  static State& Of(Interface* self) { return static_cast<Object*>(self)->state; }
  State state;
};
// NOLINTBEGIN(bugprone-macro-parentheses): types stand in no parentheses
#define GET(interface_, type, value)                \
  [](interface_* self, type* out) CALL -> HRESULT { \
    static_cast<void>(self);                        \
    *out = value;                                   \
    return S_OK;                                    \
  }
// NOLINTEND(bugprone-macro-parentheses)
constexpr VARIANT_BOOL Flag(bool value) { return value ? VARIANT_TRUE : VARIANT_FALSE; }
BSTR Text(const std::wstring& text) { return SysAllocStringLen(text.data(), static_cast<UINT>(text.size())); }

using Identity = Object<IUpdateIdentity, std::wstring>;
IUpdateIdentityVtbl identityTable = {UNKNOWN(Identity),
                                     .get_UpdateID = GET(IUpdateIdentity, BSTR, Text(Identity::Of(self)))};

using Behaviour = Object<IInstallationBehavior, std::wstring>;  // the update's area
IInstallationBehaviorVtbl behaviourTable = {
    UNKNOWN(Behaviour),
    .get_CanRequestUserInput =
        GET(IInstallationBehavior, VARIANT_BOOL, Flag(ReadNumber(Behaviour::Of(self), L"AsksPerson").value_or(0) != 0)),
    .get_RebootBehavior =
        GET(IInstallationBehavior, InstallationRebootBehavior,
            static_cast<InstallationRebootBehavior>(ReadNumber(Behaviour::Of(self), L"Reboot").value_or(0)))};

HRESULT CALL SizeOf(IUpdate* self, DECIMAL* out) {
  const std::wstring size = ReadText(Update::Area(self), L"Size").value_or(L"none");
  *out = {};
  out->sign = size[0] == L'-' ? DECIMAL_NEG : 0;
  out->Lo64 = std::wcstoull(size.c_str() + (size[0] == L'-' ? 1 : 0), nullptr, 10);
  return size == L"none" ? E_FAIL : S_OK;
}

HRESULT CALL AcceptTerms(IUpdate* self) {
  const DWORD error = Change<DWORD>(
      "AcceptEula", [&] { return Update::Area(self); },
      [&]() -> DWORD {
        if (Update::Number(self, L"TermsFailure") == 0) {
          WriteNumber(Update::Area(self), L"TermsAccepted", 1);
        }
        return ERROR_SUCCESS;
      });
  return error != 0 ? HRESULT_FROM_WIN32(error) : static_cast<HRESULT>(Update::Number(self, L"TermsFailure"));
}

// The second and third version of the interface follow the first one's slots.
struct UpdateTable {
  IUpdateVtbl first;
  void* second[4];
  HRESULT(CALL* get_BrowseOnly)(IUpdate* self, VARIANT_BOOL* out);
};
static_assert(offsetof(UpdateTable, get_BrowseOnly) == 56 * sizeof(void*));
UpdateTable updateTable = {
    .first = {UNKNOWN(Update),
              .get_Title = GET(IUpdate, BSTR, Text(ReadText(Update::Area(self), L"Title").value_or(L""))),
              .get_EulaAccepted = GET(IUpdate, VARIANT_BOOL, Flag(Update::Number(self, L"TermsAccepted") != 0)),
              .get_Identity = GET(IUpdate, IUpdateIdentity*,
                                  new Identity(&identityTable, ReadText(Update::Area(self), L"Id").value_or(L""))),
              .get_InstallationBehavior =
                  GET(IUpdate, IInstallationBehavior*, new Behaviour(&behaviourTable, Update::Area(self))),
              .get_MaxDownloadSize = SizeOf, .AcceptEula = AcceptTerms},
    .second = {},
    .get_BrowseOnly = GET(IUpdate, VARIANT_BOOL, Flag(Update::Number(self, L"BrowseOnly") != 0))};
Update::Update(std::wstring place) : ComObject(&updateTable.first), area(std::move(place)) {}

struct Collection : ComObject<Collection, IUpdateCollection> {
  Collection();
  ~Collection() {
    for (IUpdate* each : updates) {
      Update::Drop(each);
    }
  }
  static bool Has(REFIID id) { return IsEqualIID(id, IID_IUpdateCollection); }
  static std::vector<IUpdate*>& Of(IUpdateCollection* self) { return static_cast<Collection*>(self)->updates; }
  std::vector<IUpdate*> updates;
};
IUpdateCollectionVtbl collectionTable = {
    UNKNOWN(Collection),
    .get_Item = [](IUpdateCollection* self, LONG index, IUpdate** out) CALL -> HRESULT {
      if (index < 0 || static_cast<std::size_t>(index) >= Collection::Of(self).size()) {
        return static_cast<HRESULT>(0x80240007);  // no such index
      }
      *out = Collection::Of(self)[static_cast<std::size_t>(index)];
      Update::AddReference(*out);
      return S_OK;
    },
    .get_Count = GET(IUpdateCollection, LONG, static_cast<LONG>(Collection::Of(self).size())),
    .Add = [](IUpdateCollection* self, IUpdate* update, LONG* out) CALL -> HRESULT {
      Update::AddReference(update);
      *out = static_cast<LONG>(Collection::Of(self).size());
      Collection::Of(self).push_back(update);
      return S_OK;
    }};
Collection::Collection() : ComObject(&collectionTable) {}

// How an operation ended. The kinds of result have their own tables over this.
struct Outcome {
  Outcome(OperationResultCode how, HRESULT why, IUpdateCollection* with = nullptr)
      : code(how), failure(why), updates(with) {
    Hold();
  }
  Outcome(const Outcome& other)
      : code(other.code), failure(other.failure), reboot(other.reboot), updates(other.updates) {
    Hold();
  }
  Outcome& operator=(const Outcome&) = delete;
  ~Outcome() {
    if (updates != nullptr) {
      Collection::Drop(updates);
    }
  }
  void Hold() const {
    if (updates != nullptr) {
      Collection::AddReference(updates);
    }
  }
  OperationResultCode code;
  HRESULT failure;
  bool reboot = false;
  IUpdateCollection* updates;  // what was found, or worked on
};

IUpdateCollection* Shared(IUpdateCollection* updates) {
  Collection::AddReference(updates);
  return updates;
}
using SearchOutcome = Object<ISearchResult, Outcome>;
ISearchResultVtbl searchResultTable = {
    UNKNOWN(SearchOutcome), .get_ResultCode = GET(ISearchResult, OperationResultCode, SearchOutcome::Of(self).code),
    .get_Updates = GET(ISearchResult, IUpdateCollection*, Shared(SearchOutcome::Of(self).updates))};
using DownloadOutcome = Object<IDownloadResult, Outcome>;
IDownloadResultVtbl downloadResultTable = {
    UNKNOWN(DownloadOutcome), .get_HResult = GET(IDownloadResult, LONG, DownloadOutcome::Of(self).failure),
    .get_ResultCode = GET(IDownloadResult, OperationResultCode, DownloadOutcome::Of(self).code)};
using OneOutcome = Object<IUpdateInstallationResult, Outcome>;
IUpdateInstallationResultVtbl oneResultTable = {
    UNKNOWN(OneOutcome), .get_HResult = GET(IUpdateInstallationResult, LONG, OneOutcome::Of(self).failure),
    .get_ResultCode = GET(IUpdateInstallationResult, OperationResultCode, OneOutcome::Of(self).code)};
using InstallOutcome = Object<IInstallationResult, Outcome>;
IInstallationResultVtbl installResultTable = {
    UNKNOWN(InstallOutcome), .get_HResult = GET(IInstallationResult, LONG, InstallOutcome::Of(self).failure),
    .get_RebootRequired = GET(IInstallationResult, VARIANT_BOOL, Flag(InstallOutcome::Of(self).reboot)),
    .get_ResultCode = GET(IInstallationResult, OperationResultCode, InstallOutcome::Of(self).code),
    .GetUpdateResult = [](IInstallationResult* self, LONG index, IUpdateInstallationResult** out) CALL -> HRESULT {
      IUpdate* update = Collection::Of(InstallOutcome::Of(self).updates).at(static_cast<std::size_t>(index));
      const bool installed = Update::Number(update, L"Installed") != 0;
      *out = new OneOutcome(&oneResultTable, installed ? orcSucceeded : orcFailed,
                            static_cast<HRESULT>(Update::Number(update, L"Failure")));
      return S_OK;
    }};

// What the product's callbacks look like from here, and what the agent hands to those of progress.
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
IDownloadProgressVtbl downloadProgressTable = {
    UNKNOWN(DownloadPercent), .get_PercentComplete = GET(IDownloadProgress, LONG, DownloadPercent::Of(self))};
using InstallPercent = Object<IInstallationProgress, LONG>;
IInstallationProgressVtbl installProgressTable = {
    UNKNOWN(InstallPercent), .get_PercentComplete = GET(IInstallationProgress, LONG, InstallPercent::Of(self))};

enum class Kind { kSearch, kDownload, kInstall };
constexpr const wchar_t* kStages[] = {L"search", L"download", L"install"};

// One asynchronous operation, and its job object: every kind's table is over the same record.
struct Job : ComObject<Job, IUnknown> {
  Job(Kind what, IUpdateCollection* with, Callback* atEnd, Callback* onTheWay);
  ~Job() {
    CloseHandle(abort);
    for (Callback* each : {completed, progress}) {
      if (each != nullptr) {
        each->table->Release(each);
      }
    }
  }
  static bool Has(REFIID) { return false; }
  template <typename Interface>
  static Job* Of(Interface* self) {
    return static_cast<Job*>(reinterpret_cast<IUnknown*>(self));
  }
  [[nodiscard]] const wchar_t* Stage() const { return kStages[static_cast<int>(kind)]; }

  // Waits in three parts, telling the progress in between (beyond both ends too); false when aborted.
  bool Pass() {
    const DWORD duration = Setting(std::wstring(L"Duration ") + Stage());
    const bool stubborn = Setting(L"Stubborn") != 0;
    for (const LONG percent : {-5, 50, 150}) {
      const DWORD part = duration == INFINITE ? INFINITE : duration / 3;
      if (part != 0 && stubborn) {
        SleepFor(part);
      } else if (WaitFor(part)) {
        return false;
      }
      Tell(percent);
    }
    return true;
  }
  bool WaitFor(DWORD milliseconds) { return Wait(abort, milliseconds) == WAIT_OBJECT_0; }
  static void SleepFor(DWORD milliseconds) {
    HANDLE never = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    Wait(never, milliseconds);
    CloseHandle(never);
  }

  void Tell(LONG percent);

  void Work() {
    outcome.failure = FailureOf(Stage());
    if (!Pass()) {
      outcome.code = orcAborted;
    } else if (outcome.failure != S_OK) {
      outcome.code = orcFailed;
    } else if (kind == Kind::kSearch) {
      Find();
    } else {
      DoAll();
    }
    {
      const std::lock_guard guard(workMutex);
      const char* const words[] = {"searched ", "downloaded ", "installed "};
      work += words[static_cast<int>(kind)] + std::to_string(Collection::Of(outcome.updates).size()) + "\n";
    }
    finished = true;
    completed->table->Invoke(completed, this, nullptr);
  }

  void Find() {
    if (const DWORD code = Setting(L"Code search"); code != 0) {
      outcome.code = static_cast<OperationResultCode>(code);
    }
    std::vector<std::wstring> names = AreaNames(kArea + L"\\Updates");
    std::sort(names.begin(), names.end());
    for (const std::wstring& name : names) {
      const std::wstring area = kArea + L"\\Updates\\" + name;
      if (ReadNumber(area, L"Installed").value_or(0) == 0) {
        Collection::Of(outcome.updates).push_back(new Update(area));
      }
    }
  }

  void DoAll() {
    bool every = true;
    bool none = true;
    for (IUpdate* update : Collection::Of(outcome.updates)) {
      const bool fails = kind == Kind::kInstall && Update::Number(update, L"Failure") != 0;
      if (kind == Kind::kInstall && Update::Number(update, L"Downloaded") == 0) {
        Violation("an update is to be installed that was not downloaded");
      }
      if (!fails) {
        WriteNumber(Update::Area(update), kind == Kind::kInstall ? L"Installed" : L"Downloaded", 1);
        outcome.reboot |= kind == Kind::kInstall && Update::Number(update, L"Reboot") == irbAlwaysRequiresReboot;
      }
      every = every && !fails;
      none = none && fails;
    }
    outcome.code = every ? orcSucceeded : none ? orcFailed : orcSucceededWithErrors;
    outcome.failure = none ? static_cast<HRESULT>(0x80240022) : S_OK;  // all updates failed
    if (outcome.reboot) {
      WriteNumber(kArea, L"RebootRequired", 1);
    }
  }

  Kind kind;
  HANDLE abort = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  Callback* completed;
  Callback* progress;
  std::atomic<bool> finished{false};
  Outcome outcome;
};

HRESULT CALL CleanUp(IUnknown* self) {
  if (!Job::Of(self)->finished) {
    Violation("a job is cleaned up that has not ended: the call would wait for it");
  }
  return S_OK;
}
HRESULT CALL RequestAbort(IUnknown* self) {
  Signal(Job::Of(self)->abort);
  return S_OK;
}
// The tables differ in where two methods stand, from 0 being the first of the product's interest.
template <typename Method>
void* Slot(Method method) {
  return reinterpret_cast<void*>(method);
}
struct JobTable {
  HRESULT(CALL* QueryInterface)(IUnknown* self, REFIID id, void** out);
  ULONG(CALL* AddRef)(IUnknown* self);
  ULONG(CALL* Release)(IUnknown* self);
  void* others[10];
};
static_assert(offsetof(ISearchJobVtbl, CleanUp) == 9 * sizeof(void*) &&
              offsetof(ISearchJobVtbl, RequestAbort) == 10 * sizeof(void*) &&
              offsetof(IDownloadJobVtbl, CleanUp) == 10 * sizeof(void*) &&
              offsetof(IDownloadJobVtbl, RequestAbort) == 12 * sizeof(void*) &&
              offsetof(IInstallationJobVtbl, RequestAbort) == 12 * sizeof(void*));
JobTable searchJobTable = {
    UNKNOWN(Job), .others = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, Slot(CleanUp), Slot(RequestAbort)}};
JobTable workJobTable = {UNKNOWN(Job), .others = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                                                  Slot(CleanUp), nullptr, Slot(RequestAbort)}};
Job::Job(Kind what, IUpdateCollection* with, Callback* atEnd, Callback* onTheWay)
    : ComObject(reinterpret_cast<IUnknownVtbl*>(what == Kind::kSearch ? &searchJobTable : &workJobTable)),
      kind(what),
      completed(atEnd),
      progress(onTheWay),
      outcome(orcSucceeded, S_OK, with) {}

// The arguments of a progress: the methods of a dispatch object, then the progress.
struct ProgressArgs {
  struct Table {
    void* dispatch[7];
    HRESULT(CALL* get_Progress)(ProgressArgs* self, void** out);
  } const* table;
  Kind kind;
  LONG percent;
};
constexpr ProgressArgs::Table kProgressArgs = {{}, [](ProgressArgs* self, void** out) CALL -> HRESULT {
                                                 if (self->kind == Kind::kDownload) {
                                                   *out = new DownloadPercent(&downloadProgressTable, self->percent);
                                                 } else {
                                                   *out = new InstallPercent(&installProgressTable, self->percent);
                                                 }
                                                 return S_OK;
                                               }};
void Job::Tell(LONG percent) {
  if (progress != nullptr) {
    ProgressArgs args{&kProgressArgs, kind, percent};
    progress->table->Invoke(progress, this, &args);
  }
}

DWORD WINAPI RunJob(void* raw) {
  Job* const job = static_cast<Job*>(raw);
  job->Work();
  Job::Drop(job);
  --liveOperations;
  return 0;
}

template <typename Interface>
HRESULT Begin(Job* job, Interface** out) {
  ++liveOperations;
  Job::AddReference(job);
  CloseHandle(sim_CreateThread(nullptr, 0, RunJob, job, 0, nullptr));
  *out = reinterpret_cast<Interface*>(static_cast<IUnknown*>(job));
  return S_OK;
}

template <typename ResultType, typename Interface, typename Table, typename JobInterface>
HRESULT End(JobInterface* raw, Table* table, Interface** out) {
  Job* const job = Job::Of(raw);
  if (!job->finished) {
    Violation("an operation of the update agent is ended before it is over: the call would wait");
    return E_FAIL;
  }
  if (job->kind == Kind::kSearch && job->outcome.failure != S_OK) {
    return job->outcome.failure;
  }
  *out = new ResultType(table, job->outcome);
  return S_OK;
}

using Searcher = Object<IUpdateSearcher, int>;
IUpdateSearcherVtbl searcherTable = {
    UNKNOWN(Searcher),
    .BeginSearch = [](IUpdateSearcher*, BSTR criteria, IUnknown* done, VARIANT, ISearchJob** out) CALL -> HRESULT {
      if (std::wstring(criteria) != L"IsInstalled=0 and IsHidden=0 and Type='Software'") {
        Violation("the search is not for missing software: %s", Narrow(criteria).c_str());
      }
      if (const HRESULT failure = FailureOf(L"searchBegin"); failure != S_OK) {
        return failure;
      }
      auto* const found = new Collection;
      auto* const job = new Job(Kind::kSearch, found, Accept(done, kSearchDone), nullptr);
      Collection::Drop(found);
      return Begin(job, out);
    },
    .EndSearch = [](IUpdateSearcher*, ISearchJob* job, ISearchResult** out)
                     CALL { return End<SearchOutcome>(job, &searchResultTable, out); }};

// A downloader or an installer: what it is to work on.
template <typename Interface>
struct Worker : ComObject<Worker<Interface>, Interface> {
  explicit Worker(decltype(Interface::lpVtbl) table) : ComObject<Worker, Interface>(table) {}
  ~Worker() {
    if (updates != nullptr) {
      Collection::Drop(updates);
    }
  }
  static bool Has(REFIID) { return false; }
  static HRESULT CALL Put(Interface* self, IUpdateCollection* value) {
    Collection::AddReference(value);
    static_cast<Worker*>(self)->updates = value;
    return S_OK;
  }
  template <typename JobInterface>
  static HRESULT Start(Interface* self, Kind kind, Callback* done, Callback* moved, JobInterface** out) {
    IUpdateCollection* const updates = static_cast<Worker*>(self)->updates;
    for (IUpdate* each : Collection::Of(updates)) {
      if (Update::Number(each, L"TermsAccepted") == 0) {
        Violation("an update is to be worked on whose terms nobody accepted");
      }
    }
    auto* const job = new Job(kind, updates, done, moved);
    if (const HRESULT failure = FailureOf(std::wstring(job->Stage()) + L"Begin"); failure != S_OK) {
      Job::Drop(job);
      return failure;
    }
    return Begin(job, out);
  }
  IUpdateCollection* updates = nullptr;
};
using Downloader = Worker<IUpdateDownloader>;
IUpdateDownloaderVtbl downloaderTable = {
    UNKNOWN(Downloader), .put_Updates = Downloader::Put,
    .BeginDownload =
        [](IUpdateDownloader* self, IUnknown* moved, IUnknown* done, VARIANT, IDownloadJob** out) CALL {
          return Downloader::Start(self, Kind::kDownload, Accept(done, kDownloadDone), Accept(moved, kDownloadMoved),
                                   out);
        },
    .EndDownload = [](IUpdateDownloader*, IDownloadJob* job, IDownloadResult** out)
                       CALL { return End<DownloadOutcome>(job, &downloadResultTable, out); }};
using Installer = Worker<IUpdateInstaller>;
IUpdateInstallerVtbl installerTable = {
    UNKNOWN(Installer),
    .put_Updates = Installer::Put,
    .BeginInstall =
        [](IUpdateInstaller* self, IUnknown* moved, IUnknown* done, VARIANT, IInstallationJob** out) CALL {
          return Installer::Start(self, Kind::kInstall, Accept(done, kInstallDone), Accept(moved, kInstallMoved), out);
        },
    .EndInstall = [](IUpdateInstaller*, IInstallationJob* job, IInstallationResult** out)
                      CALL { return End<InstallOutcome>(job, &installResultTable, out); },
    .get_IsBusy = GET(IUpdateInstaller, VARIANT_BOOL, Flag(Setting(L"InstallerBusy") != 0)),
    .put_AllowSourcePrompts = [](IUpdateInstaller*, VARIANT_BOOL allow) CALL -> HRESULT {
      if (allow != VARIANT_FALSE) {
        Violation("an installation may ask for a source, and nobody is there to answer");
      }
      return S_OK;
    }};

// Makes an object for the product unless its stage is to fail.
template <typename Made, typename Interface, typename... Arguments>
HRESULT Make(const wchar_t* stage, Interface** out, Arguments... arguments) {
  const HRESULT failure = FailureOf(stage);
  *out = failure == S_OK ? new Made(arguments...) : nullptr;
  return failure;
}

struct Session : ComObject<Session, IUpdateSession> {
  Session();
  static bool Has(REFIID id) { return IsEqualIID(id, IID_IUpdateSession); }
};
IUpdateSessionVtbl sessionTable = {
    UNKNOWN(Session),
    .put_ClientApplicationID = [](IUpdateSession*, BSTR name) CALL -> HRESULT {
      WriteText(kArea, L"Client", name);
      return S_OK;
    },
    .CreateUpdateSearcher = [](IUpdateSession*, IUpdateSearcher** out)
                                CALL { return Make<Searcher>(L"searcher", out, &searcherTable); },
    .CreateUpdateDownloader = [](IUpdateSession*, IUpdateDownloader** out)
                                  CALL { return Make<Downloader>(L"downloader", out, &downloaderTable); },
    .CreateUpdateInstaller = [](IUpdateSession*, IUpdateInstaller** out)
                                 CALL { return Make<Installer>(L"installer", out, &installerTable); }};
Session::Session() : ComObject(&sessionTable) {}

struct System : ComObject<System, ISystemInformation> {
  System();
  static bool Has(REFIID id) { return IsEqualIID(id, IID_ISystemInformation); }
};
ISystemInformationVtbl systemTable = {
    UNKNOWN(System),
    .get_RebootRequired = GET(ISystemInformation, VARIANT_BOOL, Flag(Setting(L"RebootRequired") != 0))};
System::System() : ComObject(&systemTable) {}

template <typename Made>
HRESULT Create(const wchar_t* stage, REFIID id, void** out) {
  const HRESULT failure = FailureOf(stage);
  return failure != S_OK ? failure : HandOut(new Made, id, out);
}

const bool registered =
    RegisterComClass(
        {&CLSID_UpdateSession, [](REFIID id, void** out) { return Create<Session>(L"session", id, out); }}) &&
    RegisterComClass(
        {&kCollectionClass, [](REFIID id, void** out) { return Create<Collection>(L"collection", id, out); }}) &&
    RegisterComClass(
        {&CLSID_SystemInformation, [](REFIID id, void** out) { return Create<System>(L"system", id, out); }});

}  // namespace

std::wstring OfferUpdate(const OfferedUpdate& update) {
  static_cast<void>(registered);
  const std::wstring number = std::to_wstring(1'000'000 + AreaNames(kArea + L"\\Updates").size()).substr(1);
  const std::wstring area = kArea + L"\\Updates\\" + number;
  std::wstring id = L"id-" + number;
  WriteText(area, L"Id", id);
  WriteText(area, L"Title", update.title);
  WriteText(area, L"Size", update.size);
  WriteNumber(area, L"Reboot", update.reboot);
  WriteNumber(area, L"BrowseOnly", update.browseOnly);
  WriteNumber(area, L"AsksPerson", update.asksPerson);
  WriteNumber(area, L"TermsAccepted", update.termsAccepted);
  WriteNumber(area, L"Failure", update.failure);
  WriteNumber(area, L"TermsFailure", update.termsFailure);
  return id;
}

std::string AgentWork() {
  const std::lock_guard guard(workMutex);
  return work;
}

int LiveAgentOperations() { return liveOperations; }

}  // namespace sim
