#include "power/task_scheduler.h"

#include "log/log.h"
#include "power/weekly_trigger.h"
#include "win32/program_path.h"
#include "win32/wide_text.h"

#include <initializer_list>
#include <string_view>

namespace kiosk::power {
namespace {

using win32::Bstr;
using win32::ComPtr;
using win32::HresultText;
using win32::MakeBstr;

constexpr wchar_t kLocalSystem[] = L"S-1-5-18";
constexpr HRESULT kNoSuchTask = static_cast<HRESULT>(0x80070002);

// Hands a text to a property's setter.
template <typename Interface>
HRESULT PutText(Interface* object, HRESULT (STDMETHODCALLTYPE Interface::*put)(BSTR), std::wstring_view text) {
  const Bstr value = MakeBstr(text);
  return value ? (object->*put)(value.Get()) : E_OUTOFMEMORY;
}

// The first failure, or S_OK. All of them have been tried by then.
HRESULT FirstFailure(std::initializer_list<HRESULT> results) {
  for (const HRESULT result : results) {
    if (FAILED(result)) {
      return result;
    }
  }
  return S_OK;
}

VARIANT EmptyVariant() {
  VARIANT variant;
  VariantInit(&variant);
  return variant;
}

VARIANT_BOOL VariantBool(bool value) { return value ? VARIANT_TRUE : VARIANT_FALSE; }

// Builds one task. Each step returns false once it has logged why.
class Registration {
 public:
  Registration(const SchedulerConnection& scheduler, const PowerTask& task)
      : scheduler_(scheduler), task_(task), name_(win32::ToNarrow(task.name)) {}

  bool Run(const std::wstring& program, std::uint32_t minutes, DayMask days) {
    const HRESULT created = scheduler_.service->NewTask(0, definition_.Put());
    if (FAILED(created) || !definition_) {
      return Failed("cannot create \"", "\"", created);
    }
    DescribeAndChoosePrincipal();
    return Settings() && Trigger(minutes, days) && Action(program) && Register();
  }

 private:
  bool Failed(const char* before, const char* after, HRESULT result) const {
    log::Log(log::kError, log::kKiosk, "power: %s%s%s (%s)", before, name_.c_str(), after, HresultText(result).c_str());
    return false;
  }

  // A failure here shows in the task's properties alone: Register names LocalSystem once more.
  void DescribeAndChoosePrincipal() {
    ComPtr<IRegistrationInfo> info;
    if (SUCCEEDED(definition_->get_RegistrationInfo(info.Put())) && info) {
      PutText(info.Get(), &IRegistrationInfo::put_Author, L"Norvane");
      PutText(info.Get(), &IRegistrationInfo::put_Description, task_.description);
    }
    ComPtr<IPrincipal> principal;
    if (SUCCEEDED(definition_->get_Principal(principal.Put())) && principal) {
      PutText(principal.Get(), &IPrincipal::put_UserId, kLocalSystem);
      principal->put_LogonType(TASK_LOGON_SERVICE_ACCOUNT);
      principal->put_RunLevel(TASK_RUNLEVEL_HIGHEST);
    }
  }

  bool Settings() {
    ComPtr<ITaskSettings> settings;
    const HRESULT found = definition_->get_Settings(settings.Put());
    if (FAILED(found) || !settings) {
      return Failed("no settings for \"", "\"", found);
    }
    // A run that was missed is not made up for later, in front of people; one that hangs is ended. By default a task
    // would neither begin nor go on without mains.
    settings->put_Enabled(VARIANT_TRUE);
    settings->put_StartWhenAvailable(VARIANT_FALSE);
    settings->put_DisallowStartIfOnBatteries(VARIANT_FALSE);
    settings->put_StopIfGoingOnBatteries(VARIANT_FALSE);
    PutText(settings.Get(), &ITaskSettings::put_ExecutionTimeLimit, L"PT5M");
    settings->put_MultipleInstances(TASK_INSTANCES_IGNORE_NEW);
    const HRESULT wakes = settings->put_WakeToRun(VariantBool(task_.isWake));
    return SUCCEEDED(wakes) || Failed("\"", "\" cannot wake the computer", wakes);
  }

  bool Trigger(std::uint32_t minutes, DayMask days) {
    ComPtr<ITriggerCollection> triggers;
    ComPtr<ITrigger> trigger;
    ComPtr<IWeeklyTrigger> weekly;
    HRESULT result = definition_->get_Triggers(triggers.Put());
    if (SUCCEEDED(result) && triggers) {
      result = triggers->Create(TASK_TRIGGER_WEEKLY, trigger.Put());
    }
    if (SUCCEEDED(result) && trigger) {
      result = trigger.As(IID_IWeeklyTrigger, weekly);
    }
    if (FAILED(result) || !weekly) {
      return Failed("no weekly trigger for \"", "\"", result);
    }
    // A day in the past: the trigger counts from then on, and by local time since it names no zone.
    const std::wstring start = L"2020-01-01T" + win32::ToWide(ClockTimeText(minutes)) + L":00";
    result = FirstFailure({PutText<ITrigger>(weekly.Get(), &ITrigger::put_StartBoundary, start),
                           weekly->put_DaysOfWeek(static_cast<short>(days)), weekly->put_WeeksInterval(1)});
    return SUCCEEDED(result) || Failed("cannot schedule \"", "\"", result);
  }

  bool Action(const std::wstring& program) {
    ComPtr<IActionCollection> actions;
    ComPtr<IAction> action;
    ComPtr<IExecAction> exec;
    HRESULT result = definition_->get_Actions(actions.Put());
    if (SUCCEEDED(result) && actions) {
      result = actions->Create(TASK_ACTION_EXEC, action.Put());
    }
    if (SUCCEEDED(result) && action) {
      result = action.As(IID_IExecAction, exec);
    }
    if (FAILED(result) || !exec) {
      return Failed("no action for \"", "\"", result);
    }
    result = FirstFailure({PutText(exec.Get(), &IExecAction::put_Path, L"\"" + program + L"\""),
                           PutText(exec.Get(), &IExecAction::put_Arguments, task_.arguments)});
    return SUCCEEDED(result) || Failed("cannot set the action of \"", "\"", result);
  }

  bool Register() {
    const Bstr name = MakeBstr(task_.name);
    const Bstr user = MakeBstr(kLocalSystem);
    VARIANT account = EmptyVariant();
    account.vt = VT_BSTR;
    account.bstrVal = user.Get();  // stays the owner's
    ComPtr<IRegisteredTask> registered;
    const HRESULT result =
        name && user ? scheduler_.folder->RegisterTaskDefinition(name.Get(), definition_.Get(), TASK_CREATE_OR_UPDATE,
                                                                 account, EmptyVariant(), TASK_LOGON_SERVICE_ACCOUNT,
                                                                 EmptyVariant(), registered.Put())
                     : E_OUTOFMEMORY;
    return SUCCEEDED(result) || Failed("cannot register \"", "\"", result);
  }

  const SchedulerConnection& scheduler_;
  const PowerTask& task_;
  const std::string name_;
  ComPtr<ITaskDefinition> definition_;
};

}  // namespace

bool ConnectTaskScheduler(SchedulerConnection& scheduler) {
  const auto failed = [](const char* what, HRESULT result) {
    log::Log(log::kError, log::kKiosk, "power: %s (%s)", what, HresultText(result).c_str());
    return false;
  };
  HRESULT result = win32::CreateInProcess(CLSID_TaskScheduler, IID_ITaskService, scheduler.service);
  if (FAILED(result) || !scheduler.service) {
    return failed("Task Scheduler unavailable", result);
  }
  result = scheduler.service->Connect(EmptyVariant(), EmptyVariant(), EmptyVariant(), EmptyVariant());
  if (FAILED(result)) {
    return failed("cannot connect to Task Scheduler", result);
  }
  const Bstr root = MakeBstr(L"\\");
  result = root ? scheduler.service->GetFolder(root.Get(), scheduler.folder.Put()) : E_OUTOFMEMORY;
  return (SUCCEEDED(result) && scheduler.folder) || failed("no Task Scheduler root folder", result);
}

bool TaskExists(const SchedulerConnection& scheduler, const PowerTask& task) {
  const Bstr name = MakeBstr(task.name);
  ComPtr<IRegisteredTask> found;
  return name && SUCCEEDED(scheduler.folder->GetTask(name.Get(), found.Put()));
}

bool RegisterPowerTask(const SchedulerConnection& scheduler, const PowerTask& task, std::uint32_t minutesAfterMidnight,
                       DayMask days) {
  const std::wstring program = win32::StartablePath();
  if (program.empty() || !Registration(scheduler, task).Run(program, minutesAfterMidnight, days)) {
    return false;
  }
  log::Log(log::kNotice, log::kKiosk, "power: \"%s\" at %s on days 0x%02x", win32::ToNarrow(task.name).c_str(),
           ClockTimeText(minutesAfterMidnight).c_str(), static_cast<unsigned>(days));
  return true;
}

bool RemovePowerTask(const SchedulerConnection& scheduler, const PowerTask& task) {
  const Bstr name = MakeBstr(task.name);
  const HRESULT result = name ? scheduler.folder->DeleteTask(name.Get(), 0) : E_OUTOFMEMORY;
  const std::string text = win32::ToNarrow(task.name);
  if (SUCCEEDED(result)) {
    log::Log(log::kNotice, log::kKiosk, "power: removed the task \"%s\"", text.c_str());
  } else if (result != kNoSuchTask) {
    log::Log(log::kError, log::kKiosk, "power: cannot remove \"%s\" (%s)", text.c_str(), HresultText(result).c_str());
    return false;
  }
  return true;
}

}  // namespace kiosk::power
