// What the simulated update agent knows and does, and the updates that it has found, as objects. For files in C style,
// see sim/com.h.
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

// A new object with one reference.
IUpdateCollection* NewCollection(const Areas& updates);
HRESULT CreateCollection(REFIID id, void** out);
const Areas& AreasOf(IUpdateCollection* collection);

}  // namespace sim
