#define CINTERFACE
#include "sim/update_catalogue.h"

#include "sim/machine.h"
#include "sim/seam.h"

#include <algorithm>
#include <mutex>

namespace sim {
namespace {

const std::wstring kArea = kUpdateArea;
std::mutex workMutex;
std::string work;

}  // namespace

DWORD NumberOf(const std::wstring& area, const wchar_t* name) { return ReadNumber(area, name).value_or(0); }

void FindUpdates(Outcome& outcome) {
  const DWORD code = agent.codeSearch.Get();
  outcome.code = code != 0 ? static_cast<OperationResultCode>(code) : orcSucceeded;
  Areas names = AreaNames(kArea + L"\\Updates");
  std::sort(names.begin(), names.end());
  for (const std::wstring& name : names) {
    const std::wstring area = kArea + L"\\Updates\\" + name;
    if (NumberOf(area, L"Installed") == 0) {
      outcome.updates.push_back(area);
    }
  }
}

void WorkOn(Outcome& outcome, bool installs) {
  std::size_t failed = 0;
  for (const std::wstring& update : outcome.updates) {
    if (installs && NumberOf(update, L"Downloaded") == 0) {
      Violation("an update is to be installed that was not downloaded");
    }
    if (NumberOf(update, installs ? L"Failure" : L"DownloadFailure") != 0) {
      ++failed;
      continue;
    }
    WriteNumber(update, installs ? L"Installed" : L"Downloaded", 1);
    outcome.reboot |= installs && NumberOf(update, L"Reboot") == irbAlwaysRequiresReboot;
  }
  const bool none = failed == outcome.updates.size();
  outcome.code = failed == 0 ? orcSucceeded : none ? orcFailed : orcSucceededWithErrors;
  outcome.failure = none ? static_cast<HRESULT>(0x80240022) : S_OK;  // all updates failed
  if (outcome.reboot) {
    agent.rebootRequired.Set(1);
  }
}

void NoteWork(const std::string& line) {
  const std::lock_guard guard(workMutex);
  work += line;
}

std::wstring OfferUpdate(const OfferedUpdate& update) {
  static_cast<void>(LiveAgentOperations());  // or the linker leaves the agent out
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
  WriteNumber(area, L"Impact", update.exclusive ? iiRequiresExclusiveHandling : iiNormal);
  WriteNumber(area, L"NoBehaviour", update.noBehaviour);
  WriteNumber(area, L"Feature", update.feature);
  WriteNumber(area, L"DownloadFailure", update.downloadFailure);
  WriteNumber(area, L"Failure", update.failure);
  WriteNumber(area, L"TermsFailure", update.termsFailure);
  return id;
}

void RestartAgent() {
  for (const std::wstring& name : AreaNames(kArea + L"\\Updates")) {
    const std::wstring area = kArea + L"\\Updates\\" + name;
    if (NumberOf(area, L"Feature") != 0 && agent.committed.Get() == 0) {
      WriteNumber(area, L"Installed", 0);
    }
  }
  agent.committed.Set(0);
  agent.rebootRequired.Set(0);
}

std::string AgentWork() {
  const std::lock_guard guard(workMutex);
  return work;
}

}  // namespace sim
