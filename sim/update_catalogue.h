// What the simulated update agent knows and does, without its objects. For files in C style, see sim/com.h.
#pragma once

#include "sim/windows_update.h"

#include <wuapi.h>

#include <string>
#include <vector>

namespace sim {

using Areas = std::vector<std::wstring>;  // of updates
DWORD NumberOf(const std::wstring& area, const wchar_t* name);

// How an operation ended.
struct Outcome {
  OperationResultCode code = orcSucceeded;
  HRESULT failure = S_OK;
  Areas updates = {};  // what was found, or worked on
  bool reboot = false;
};
void FindUpdates(Outcome& outcome);
void WorkOn(Outcome& outcome, bool installs);
void NoteWork(const std::string& line);

}  // namespace sim
