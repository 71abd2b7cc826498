#define CINTERFACE
#include "sim/tasks.h"

#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"

#include <oleauto.h>
#include <taskschd.h>

#include <algorithm>
#include <cwchar>
#include <memory>

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

// A definition's properties, which its parts put and keep alive.
using Properties = std::shared_ptr<TaskProperties>;
template <typename Interface>
TaskProperties& PropertiesOf(Interface* part) {
  return *Object<Interface, Properties>::Of(part);
}

template <typename Interface>
HRESULT Keep(Interface* part, const std::wstring& name, const std::wstring& value) {
  const HRESULT result = Method(L"put_" + name);
  if (SUCCEEDED(result)) {
    PropertiesOf(part)[name] = value;
  }
  return result;
}
std::wstring AsText(BSTR value) { return TextOf(value); }
template <typename Number>
std::wstring AsText(Number value) {
  return std::to_wstring(value == -1 ? 1 : value);  // VARIANT_TRUE
}
// The implementation of "put_NAME"; the interface and the value's type follow from the slot.
#define PUT(name) [](auto* self, auto value) CALL -> HRESULT { return Keep(self, name, AsText(value)); }
#define PART(interfaceType) Object<interfaceType, Properties, IID_##interfaceType>

using Task = Object<IRegisteredTask, Stateless, IID_IRegisteredTask>;
IRegisteredTaskVtbl taskTable{COM_BASICS(Task)};
IRegistrationInfoVtbl infoTable{COM_BASICS(PART(IRegistrationInfo)), .put_Description = PUT(L"Description"),
                                .put_Author = PUT(L"Author")};
IPrincipalVtbl principalTable{COM_BASICS(PART(IPrincipal)), .put_UserId = PUT(L"UserId"),
                              .put_LogonType = PUT(L"LogonType"), .put_RunLevel = PUT(L"RunLevel")};
ITaskSettingsVtbl settingsTable{COM_BASICS(PART(ITaskSettings)),
                                .put_MultipleInstances = PUT(L"MultipleInstances"),
                                .put_StopIfGoingOnBatteries = PUT(L"StopIfGoingOnBatteries"),
                                .put_DisallowStartIfOnBatteries = PUT(L"DisallowStartIfOnBatteries"),
                                .put_StartWhenAvailable = PUT(L"StartWhenAvailable"),
                                .put_ExecutionTimeLimit = PUT(L"ExecutionTimeLimit"),
                                .put_Enabled = PUT(L"Enabled"),
                                .put_WakeToRun = PUT(L"WakeToRun")};
// IExecAction and IWeeklyTrigger as the documentation lists them: what every action and trigger has, then their own.
using Action = Object<IAction, Properties, IID_IAction, IID_IExecAction>;
struct ExecActionTable {
  IActionVtbl action;
  HRESULT(CALL* getPath)(IAction*, BSTR*);
  HRESULT(CALL* putPath)(IAction*, BSTR);
  HRESULT(CALL* getArguments)(IAction*, BSTR*);
  HRESULT(CALL* putArguments)(IAction*, BSTR);
};
ExecActionTable execTable{.action = {COM_BASICS(Action)}, .putPath = PUT(L"Path"), .putArguments = PUT(L"Arguments")};
using Trigger = Object<ITrigger, Properties, IID_ITrigger, kWeeklyTrigger>;
struct WeeklyTriggerTable {
  ITriggerVtbl trigger;
  HRESULT(CALL* getDaysOfWeek)(ITrigger*, short*);
  HRESULT(CALL* putDaysOfWeek)(ITrigger*, short);
  HRESULT(CALL* getWeeksInterval)(ITrigger*, short*);
  HRESULT(CALL* putWeeksInterval)(ITrigger*, short);
};
WeeklyTriggerTable triggerTable{.trigger = {COM_BASICS(Trigger), .put_StartBoundary = PUT(L"StartBoundary")},
                                .putDaysOfWeek = PUT(L"DaysOfWeek"),
                                .putWeeksInterval = PUT(L"WeeksInterval")};

ITriggerCollectionVtbl triggersTable{
    COM_BASICS(PART(ITriggerCollection)),
    .Create = [](ITriggerCollection* self, TASK_TRIGGER_TYPE2 type, ITrigger** trigger) CALL -> HRESULT {
      PropertiesOf(self)[L"Trigger"] += std::to_wstring(type);
      *trigger = new Trigger(&triggerTable.trigger, PART(ITriggerCollection)::Of(self));
      return S_OK;
    }};
IActionCollectionVtbl actionsTable{
    COM_BASICS(PART(IActionCollection)),
    .Create = [](IActionCollection* self, TASK_ACTION_TYPE type, IAction** action) CALL -> HRESULT {
      PropertiesOf(self)[L"Action"] += std::to_wstring(type);
      *action = new Action(&execTable.action, PART(IActionCollection)::Of(self));
      return S_OK;
    }};

// Makes an object for the product unless the method is to fail.
template <typename Made, typename Interface, typename... Parts>
HRESULT Give(const wchar_t* method, Interface** object, Parts... parts) {
  const HRESULT result = Method(method);
  *object = SUCCEEDED(result) ? new Made(parts...) : nullptr;
  return result;
}
using Definition = PART(ITaskDefinition);
#define GET_PART(name, interfaceType, table)                                               \
  .get_##name = [](ITaskDefinition* self, auto** part) CALL -> HRESULT {                   \
    return Give<PART(interfaceType)>(L"get_" #name, part, &(table), Definition::Of(self)); \
  }
ITaskDefinitionVtbl definitionTable{COM_BASICS(Definition),
                                    GET_PART(RegistrationInfo, IRegistrationInfo, infoTable),
                                    GET_PART(Triggers, ITriggerCollection, triggersTable),
                                    GET_PART(Settings, ITaskSettings, settingsTable),
                                    GET_PART(Principal, IPrincipal, principalTable),
                                    GET_PART(Actions, IActionCollection, actionsTable)};

HRESULT CALL GetTask(ITaskFolder* /*self*/, BSTR path, IRegisteredTask** task) {
  const bool found = AreaExists(TaskArea(TextOf(path)));
  *task = found ? new Task(&taskTable) : nullptr;
  return found ? S_OK : HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);
}

HRESULT CALL DeleteTask(ITaskFolder* /*self*/, BSTR path, LONG flags) {
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
  const DWORD error = Change<DWORD>("DeleteTask", name, [&]() -> DWORD {
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

HRESULT CALL RegisterTask(ITaskFolder* /*self*/, BSTR path, ITaskDefinition* definition, LONG flags, VARIANT user,
                          VARIANT password, TASK_LOGON_TYPE logon, VARIANT sddl, IRegisteredTask** task) {
  std::wstring name = TextOf(path);
  *task = nullptr;
  if (const HRESULT result = Method(L"RegisterTaskDefinition " + name); FAILED(result)) {
    return result;
  }
  TaskProperties properties = PropertiesOf(definition);
  if (name.empty() || !Complete(properties, password, sddl)) {
    Violation("RegisterTaskDefinition: no name, an incomplete definition, or a password for a service account");
    return E_INVALIDARG;
  }
  properties[L"Flags"] = std::to_wstring(flags);
  properties[L"User"] = user.vt == VT_BSTR ? TextOf(user.bstrVal) : L"";
  properties[L"Logon"] = std::to_wstring(logon);
  const DWORD error = Change<DWORD>("RegisterTaskDefinition", name, [&]() -> DWORD {
    ForgetArea(TaskArea(name));
    for (const auto& [property, value] : properties) {
      WriteText(TaskArea(name), property, value);
    }
    return ERROR_SUCCESS;
  });
  *task = error == ERROR_SUCCESS ? new Task(&taskTable) : nullptr;
  return HRESULT_FROM_WIN32(error);
}

using Folder = Object<ITaskFolder, Stateless, IID_ITaskFolder>;
ITaskFolderVtbl folderTable{COM_BASICS(Folder), .GetTask = GetTask, .DeleteTask = DeleteTask,
                            .RegisterTaskDefinition = RegisterTask};

using Service = Object<ITaskService, bool, IID_ITaskService>;  // connected

HRESULT CALL Connect(ITaskService* self, VARIANT server, VARIANT user, VARIANT domain, VARIANT password) {
  if ((server.vt | user.vt | domain.vt | password.vt) != VT_EMPTY) {
    Violation("ITaskService::Connect: another computer or user");
  }
  const HRESULT result = Method(L"Connect");
  Service::Of(self) = SUCCEEDED(result);
  return result;
}
HRESULT CALL GetFolder(ITaskService* self, BSTR path, ITaskFolder** folder) {
  if (!Service::Of(self) || TextOf(path) != L"\\") {
    Violation("ITaskService::GetFolder: not connected, or not the root folder");
  }
  return Give<Folder>(L"GetFolder", folder, &folderTable);
}
HRESULT CALL NewTask(ITaskService* self, DWORD /*flags*/, ITaskDefinition** definition) {
  if (!Service::Of(self)) {
    Violation("ITaskService::NewTask: not connected");
  }
  const TaskProperties asNew{{L"Enabled", L"1"},
                             {L"StartWhenAvailable", L"0"},
                             {L"WakeToRun", L"0"},
                             {L"DisallowStartIfOnBatteries", L"1"},
                             {L"MultipleInstances", L"2"},
                             {L"StopIfGoingOnBatteries", L"1"},
                             {L"ExecutionTimeLimit", L"PT72H"}};
  return Give<Definition>(L"NewTask", definition, &definitionTable, std::make_shared<TaskProperties>(asNew));
}
ITaskServiceVtbl serviceTable{COM_BASICS(Service), .GetFolder = GetFolder, .NewTask = NewTask, .Connect = Connect};

const bool registered =
    RegisterComClass({&CLSID_TaskScheduler, [](REFIID id, void** object) {
                        const HRESULT result = Method(L"CoCreateInstance");
                        return SUCCEEDED(result) ? HandOut(new Service(&serviceTable, false), id, object) : result;
                      }});

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
