// One task of the service in Task Scheduler's root folder: weekly, as LocalSystem, running this program.
#pragma once

#include "power/clock_time.h"
#include "win32/com.h"

#include <taskschd.h>

#include <string>

namespace kiosk::power {

struct PowerTask {
  const wchar_t* name;
  const wchar_t* description;
  const wchar_t* arguments;
  bool isWake;  // the task wakes the computer for its run
};

// Task Scheduler, connected, with its root folder. To be destroyed before the caller leaves its COM apartment.
struct SchedulerConnection {
  win32::ComPtr<ITaskService> service;
  win32::ComPtr<ITaskFolder> folder;
};

// False when a step fails, which is logged. The caller is in a COM apartment.
bool ConnectTaskScheduler(SchedulerConnection& scheduler);

bool TaskExists(const SchedulerConnection& scheduler, const PowerTask& task);

// Creates the task, or puts the one of this name right, to run at the time on each of the days. A failure is logged.
bool RegisterPowerTask(const SchedulerConnection& scheduler, const PowerTask& task, std::uint32_t minutesAfterMidnight,
                       DayMask days);

// Deletes the task. False when it is still there; then, and when there was one, that is logged.
bool RemovePowerTask(const SchedulerConnection& scheduler, const PowerTask& task);

}  // namespace kiosk::power
