#define CINTERFACE
#include "sim/tasks.h"

#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <oleauto.h>
#include <taskschd.h>

#include <algorithm>
#include <cwchar>

namespace sim {
namespace {

constexpr wchar_t kArea[] = L"Tasks";
constexpr wchar_t kControl[] = L"TaskScheduler";
constexpr IID kWeeklyTrigger{0x5038fc98, 0x82ff, 0x436d, {0x87, 0x28, 0xa5, 0x12, 0xa5, 0x7c, 0x9d, 0xc1}};

std::wstring TaskArea(const std::wstring& name) { return std::wstring(kArea) + L"\\" + name; }

// The result of a method that a test may let fail.
HRESULT Method(const std::wstring& name) {
  const auto failing = ReadText(kControl, L"FailingMethod");
  return failing && *failing == name ? static_cast<HRESULT>(ReadNumber(kControl, L"Result").value_or(0)) : S_OK;
}

template <typename Interface, const IID& Id>
struct Object final : ComObject<Object<Interface, Id>, Interface> {
  using ComObject<Object<Interface, Id>, Interface>::ComObject;
  static bool Has(REFIID id) { return IsEqualIID(id, Id); }
};

#define BASICS(type) .QueryInterface = type::Query, .AddRef = type::AddReference, .Release = type::Drop

using Task = Object<IRegisteredTask, IID_IRegisteredTask>;
IRegisteredTaskVtbl taskTable{BASICS(Task)};

struct Definition final : ComObject<Definition, ITaskDefinition> {
  using ComObject<Definition, ITaskDefinition>::ComObject;
  static bool Has(REFIID id) { return IsEqualIID(id, IID_ITaskDefinition); }

  // As Windows makes a new one.
  TaskProperties properties{{L"Enabled", L"1"},
                            {L"StartWhenAvailable", L"0"},
                            {L"DisallowStartIfOnBatteries", L"1"},
                            {L"StopIfGoingOnBatteries", L"1"},
                            {L"ExecutionTimeLimit", L"PT72H"},
                            {L"MultipleInstances", L"2"},
                            {L"WakeToRun", L"0"}};
};

// A part of a definition: puts properties into it and keeps it alive.
template <typename Interface, const IID& Id>
struct Part final : ComObject<Part<Interface, Id>, Interface> {
  Part(Definition* owner, decltype(Interface::lpVtbl) table)
      : ComObject<Part<Interface, Id>, Interface>(table), definition(owner) {
    Definition::AddReference(owner);
  }
  ~Part() { Definition::Drop(definition); }
  static bool Has(REFIID id) {
    return IsEqualIID(id, Id) || (IsEqualIID(Id, IID_ITrigger) && IsEqualIID(id, kWeeklyTrigger)) ||
           (IsEqualIID(Id, IID_IAction) && IsEqualIID(id, IID_IExecAction));
  }

  Definition* definition;
};

template <typename Interface>
Definition& DefinitionOf(Interface* part) {
  // Every Part begins alike, whatever its interface.
  return *reinterpret_cast<Part<ITaskSettings, IID_ITaskSettings>*>(part)->definition;
}

HRESULT Keep(Definition& definition, const wchar_t* name, const std::wstring& value) {
  const HRESULT result = Method(std::wstring(L"put_") + name);
  if (SUCCEEDED(result)) {
    definition.properties[name] = value;
  }
  return result;
}

std::wstring TextOf(BSTR text) { return text != nullptr ? std::wstring(text, SysStringLen(text)) : std::wstring(); }

// A property's name as a template argument.
template <std::size_t Size>
struct Name {
  consteval Name(const wchar_t (&from)[Size]) { std::copy_n(from, Size, text); }  // NOLINT(google-explicit-constructor)
  wchar_t text[Size];
};

// The implementations of "put_NAME"; the interface and the number's type follow from the slot.
template <Name name, typename Interface>
HRESULT STDMETHODCALLTYPE PutText(Interface* self, BSTR value) {
  return Keep(DefinitionOf(self), name.text, TextOf(value));
}
template <Name name, typename Interface, typename Number>
HRESULT STDMETHODCALLTYPE PutNumber(Interface* self, Number value) {
  return Keep(DefinitionOf(self), name.text, std::to_wstring(value == -1 ? 1 : value));
}

using Action = Part<IAction, IID_IAction>;
using Trigger = Part<ITrigger, IID_ITrigger>;
#define PART(interfaceType) Part<interfaceType, IID_##interfaceType>
#define PART_BASICS(interfaceType)                                                           \
  .QueryInterface = PART(interfaceType)::Query, .AddRef = PART(interfaceType)::AddReference, \
  .Release = PART(interfaceType)::Drop

IRegistrationInfoVtbl infoTable{PART_BASICS(IRegistrationInfo), .put_Description = PutText<L"Description">,
                                .put_Author = PutText<L"Author">};
IPrincipalVtbl principalTable{PART_BASICS(IPrincipal), .put_UserId = PutText<L"UserId">,
                              .put_LogonType = PutNumber<L"LogonType">, .put_RunLevel = PutNumber<L"RunLevel">};
ITaskSettingsVtbl settingsTable{PART_BASICS(ITaskSettings),
                                .put_MultipleInstances = PutNumber<L"MultipleInstances">,
                                .put_StopIfGoingOnBatteries = PutNumber<L"StopIfGoingOnBatteries">,
                                .put_DisallowStartIfOnBatteries = PutNumber<L"DisallowStartIfOnBatteries">,
                                .put_StartWhenAvailable = PutNumber<L"StartWhenAvailable">,
                                .put_ExecutionTimeLimit = PutText<L"ExecutionTimeLimit">,
                                .put_Enabled = PutNumber<L"Enabled">,
                                .put_WakeToRun = PutNumber<L"WakeToRun">};
// IExecAction and IWeeklyTrigger as the documentation lists them: what every action and trigger has, then their own.
struct ExecActionTable {
  IActionVtbl action;
  HRESULT(STDMETHODCALLTYPE* getPath)(IAction*, BSTR*);
  HRESULT(STDMETHODCALLTYPE* putPath)(IAction*, BSTR);
  HRESULT(STDMETHODCALLTYPE* getArguments)(IAction*, BSTR*);
  HRESULT(STDMETHODCALLTYPE* putArguments)(IAction*, BSTR);
};
ExecActionTable execTable{
    .action = {PART_BASICS(IAction)}, .putPath = PutText<L"Path">, .putArguments = PutText<L"Arguments">};
struct WeeklyTriggerTable {
  ITriggerVtbl trigger;
  HRESULT(STDMETHODCALLTYPE* getDaysOfWeek)(ITrigger*, short*);
  HRESULT(STDMETHODCALLTYPE* putDaysOfWeek)(ITrigger*, short);
  HRESULT(STDMETHODCALLTYPE* getWeeksInterval)(ITrigger*, short*);
  HRESULT(STDMETHODCALLTYPE* putWeeksInterval)(ITrigger*, short);
};
WeeklyTriggerTable triggerTable{.trigger = {PART_BASICS(ITrigger), .put_StartBoundary = PutText<L"StartBoundary">},
                                .putDaysOfWeek = PutNumber<L"DaysOfWeek">,
                                .putWeeksInterval = PutNumber<L"WeeksInterval">};

HRESULT STDMETHODCALLTYPE CreateTrigger(ITriggerCollection* self, TASK_TRIGGER_TYPE2 type, ITrigger** trigger) {
  Definition& definition = DefinitionOf(self);
  definition.properties[L"Trigger"] += std::to_wstring(type);
  *trigger = new Trigger(&definition, &triggerTable.trigger);
  return S_OK;
}
HRESULT STDMETHODCALLTYPE CreateAction(IActionCollection* self, TASK_ACTION_TYPE type, IAction** action) {
  Definition& definition = DefinitionOf(self);
  definition.properties[L"Action"] += std::to_wstring(type);
  *action = new Action(&definition, &execTable.action);
  return S_OK;
}
ITriggerCollectionVtbl triggersTable{PART_BASICS(ITriggerCollection), .Create = CreateTrigger};
IActionCollectionVtbl actionsTable{PART_BASICS(IActionCollection), .Create = CreateAction};

template <Name method, const IID& Id, auto* table, typename Interface>
HRESULT STDMETHODCALLTYPE GetPart(ITaskDefinition* self, Interface** part) {
  const HRESULT result = Method(method.text);
  *part = SUCCEEDED(result) ? new Part<Interface, Id>(static_cast<Definition*>(self), table) : nullptr;
  return result;
}
ITaskDefinitionVtbl definitionTable{
    BASICS(Definition),
    .get_RegistrationInfo = GetPart<L"get_RegistrationInfo", IID_IRegistrationInfo, &infoTable>,
    .get_Triggers = GetPart<L"get_Triggers", IID_ITriggerCollection, &triggersTable>,
    .get_Settings = GetPart<L"get_Settings", IID_ITaskSettings, &settingsTable>,
    .get_Principal = GetPart<L"get_Principal", IID_IPrincipal, &principalTable>,
    .get_Actions = GetPart<L"get_Actions", IID_IActionCollection, &actionsTable>};

HRESULT STDMETHODCALLTYPE GetTask(ITaskFolder* /*self*/, BSTR path, IRegisteredTask** task) {
  const bool found = AreaExists(TaskArea(TextOf(path)));
  *task = found ? new Task(&taskTable) : nullptr;
  return found ? S_OK : HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
}

HRESULT STDMETHODCALLTYPE DeleteTask(ITaskFolder* /*self*/, BSTR path, LONG flags) {
  std::wstring name = TextOf(path);
  if (flags != 0) {
    Violation("ITaskFolder::DeleteTask: flags are reserved");
  }
  if (const HRESULT result = Method(L"DeleteTask " + name); FAILED(result)) {
    return result;
  }
  if (!AreaExists(TaskArea(name))) {
    return HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
  }
  const DWORD error = Change<DWORD>(
      "DeleteTask", [&] { return name; },
      [&]() -> DWORD {
        DeleteRegisteredTask(name);
        return ERROR_SUCCESS;
      });
  return HRESULT_FROM_WIN32(error);
}

// What the documentation asks of a definition and of the call for a service account.
bool Complete(TaskProperties& properties, const VARIANT& password, const VARIANT& sddl) {
  int hour = 0, minute = 0, used = 0;
  const std::wstring start = properties[L"StartBoundary"];
  return properties[L"Action"] == L"0" && properties[L"Trigger"] == L"3" && !properties[L"Path"].empty() &&
         swscanf(start.c_str(), L"2020-01-01T%2d:%2d:00%n", &hour, &minute, &used) == 2 && used == 19 && hour < 24 &&
         minute < 60 && std::stoi(L"0" + properties[L"DaysOfWeek"]) > 0 && password.vt == VT_EMPTY &&
         sddl.vt == VT_EMPTY;
}

HRESULT STDMETHODCALLTYPE RegisterTask(ITaskFolder* /*self*/, BSTR path, ITaskDefinition* definition, LONG flags,
                                       VARIANT user, VARIANT password, TASK_LOGON_TYPE logon, VARIANT sddl,
                                       IRegisteredTask** task) {
  std::wstring name = TextOf(path);
  *task = nullptr;
  if (const HRESULT result = Method(L"RegisterTaskDefinition " + name); FAILED(result)) {
    return result;
  }
  TaskProperties properties = static_cast<Definition*>(definition)->properties;
  if (name.empty() || !Complete(properties, password, sddl)) {
    Violation("RegisterTaskDefinition: no name, an incomplete definition, or a password for a service account");
    return E_INVALIDARG;
  }
  properties[L"Flags"] = std::to_wstring(flags);
  properties[L"User"] = user.vt == VT_BSTR ? TextOf(user.bstrVal) : L"";
  properties[L"Logon"] = std::to_wstring(logon);
  const DWORD error = Change<DWORD>(
      "RegisterTaskDefinition", [&] { return name; },
      [&]() -> DWORD {
        ForgetArea(TaskArea(name));
        for (const auto& [property, value] : properties) {
          WriteText(TaskArea(name), property, value);
        }
        return ERROR_SUCCESS;
      });
  *task = error == ERROR_SUCCESS ? new Task(&taskTable) : nullptr;
  return HRESULT_FROM_WIN32(error);
}

using Folder = Object<ITaskFolder, IID_ITaskFolder>;
ITaskFolderVtbl folderTable{BASICS(Folder), .GetTask = GetTask, .DeleteTask = DeleteTask,
                            .RegisterTaskDefinition = RegisterTask};

struct Service final : ComObject<Service, ITaskService> {
  using ComObject<Service, ITaskService>::ComObject;
  static bool Has(REFIID id) { return IsEqualIID(id, IID_ITaskService); }
  bool connected = false;
};

HRESULT STDMETHODCALLTYPE Connect(ITaskService* self, VARIANT server, VARIANT user, VARIANT domain, VARIANT password) {
  if ((server.vt | user.vt | domain.vt | password.vt) != VT_EMPTY) {
    Violation("ITaskService::Connect: another computer or user");
  }
  const HRESULT result = Method(L"Connect");
  static_cast<Service*>(self)->connected = SUCCEEDED(result);
  return result;
}

// What only a connected service gives.
template <typename Given, typename Table, typename Interface>
HRESULT Give(ITaskService* self, const wchar_t* method, Table* table, Interface** object) {
  if (!static_cast<Service*>(self)->connected) {
    Violation("%s: not connected", Narrow(method).c_str());
  }
  const HRESULT result = Method(method);
  *object = SUCCEEDED(result) ? new Given(table) : nullptr;
  return result;
}

HRESULT STDMETHODCALLTYPE GetFolder(ITaskService* self, BSTR path, ITaskFolder** folder) {
  if (TextOf(path) != L"\\") {
    Violation("ITaskService::GetFolder: only the root folder is known here");
  }
  return Give<Folder>(self, L"GetFolder", &folderTable, folder);
}
HRESULT STDMETHODCALLTYPE NewTask(ITaskService* self, DWORD /*flags*/, ITaskDefinition** definition) {
  return Give<Definition>(self, L"NewTask", &definitionTable, definition);
}

ITaskServiceVtbl serviceTable{BASICS(Service), .GetFolder = GetFolder, .NewTask = NewTask, .Connect = Connect};

HRESULT CreateService(REFIID id, void** object) {
  const HRESULT result = Method(L"CoCreateInstance");
  return SUCCEEDED(result) ? HandOut(new Service(&serviceTable), id, object) : result;
}

const bool registered = RegisterComClass({&CLSID_TaskScheduler, CreateService});

}  // namespace

TaskProperties RegisteredTask(const std::wstring& name) {
  TaskProperties properties;
  for (const std::wstring& property : ValueNames(TaskArea(name))) {
    properties[property] = ReadText(TaskArea(name), property).value_or(L"");
  }
  return properties;
}

void DeleteRegisteredTask(const std::wstring& name) { ForgetArea(TaskArea(name)); }

void FailTaskMethod(const std::wstring& method, HRESULT result) {
  WriteText(kControl, L"FailingMethod", method);
  WriteNumber(kControl, L"Result", static_cast<DWORD>(result));
}

DWORD RunDueTasks(DWORD day, const std::wstring& time) {
  DWORD highest = kNothingDue;
  for (const std::wstring& name : AreaNames(kArea)) {
    TaskProperties task = RegisteredTask(name);
    if (task[L"Enabled"] != L"1" || task[L"StartBoundary"].substr(11, 5) != time ||
        (std::stoul(task[L"DaysOfWeek"]) >> day & 1) == 0) {
      continue;
    }
    std::wstring command = task[L"Path"] + L" " + task[L"Arguments"];
    STARTUPINFOW startup{};
    startup.cb = sizeof(startup);
    PROCESS_INFORMATION process{};
    DWORD code = kNothingDue;
    if (CreateProcessW(nullptr, command.data(), nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup, &process)) {
      WaitForSingleObject(process.hProcess, INFINITE);
      GetExitCodeProcess(process.hProcess, &code);
      CloseHandle(process.hThread);
      CloseHandle(process.hProcess);
    }
    highest = highest == kNothingDue ? code : std::max(highest, code);
  }
  return highest;
}

std::vector<std::string> TaskLines() {
  std::vector<std::string> lines;
  for (const std::wstring& name : AreaNames(kArea)) {
    for (const auto& [property, value] : RegisteredTask(name)) {
      lines.push_back("task " + Narrow(name + L" " + property + L" = " + value));
    }
  }
  return lines;
}

}  // namespace sim
