// Task Scheduler of the simulated machine (area "Tasks"): each task of the root folder with its properties as text.
#pragma once

#include "win32/winapi.h"

#include <map>
#include <string>
#include <vector>

namespace sim {

using TaskProperties = std::map<std::wstring, std::wstring>;

// The properties of a registered task, named after the methods that put them ("WakeToRun" = "1"), with what it was
// registered with ("Flags", "User", "Logon"); empty: there is no such task.
TaskProperties RegisteredTask(const std::wstring& name);
void DeleteRegisteredTask(const std::wstring& name);

// The method fails with the result ("Connect", "get_Settings"; "RegisterTaskDefinition NAME" and "DeleteTask NAME" for
// one task); "": none does.
void FailTaskMethod(const std::wstring& method, HRESULT result = E_ACCESSDENIED);

// Runs the tasks that are due at that local time, day 0 being Sunday, each as a process; the highest of their exit
// codes, or kNothingDue.
inline constexpr DWORD kNothingDue = 0xFFFF;
DWORD RunDueTasks(DWORD day, const std::wstring& time);

std::vector<std::string> TaskLines();  // for the dump

}  // namespace sim
