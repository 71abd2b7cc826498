#include "sim/event_log.h"

#include "sim/clock_internal.h"
#include "sim/seam.h"

#include <map>
#include <mutex>
#include <sstream>

namespace sim {
namespace {

constexpr wchar_t kEntries[] = L"EventLog\\Entries";
constexpr std::size_t kLongestText = 31'839;

std::mutex mutex;                                            // guards what follows, and the order of the entries
auto* const sources = new std::map<HANDLE, std::wstring>();  // a thread may come here while the process ends
std::uintptr_t lastSource = 0xE000;

const wchar_t* TypeName(WORD type) {
  switch (type) {
    case EVENTLOG_ERROR_TYPE:
      return L"error";
    case EVENTLOG_WARNING_TYPE:
      return L"warning";
    case EVENTLOG_INFORMATION_TYPE:
      return L"information";
    default:
      Violation("ReportEventW: type %u", type);
      return L"unknown";
  }
}

BOOL Fail(DWORD error) {
  SetLastError(error);
  return FALSE;
}

}  // namespace

std::vector<std::string> EventLogEntries() {
  std::vector<std::string> entries;
  for (const std::wstring& name : ValueNames(kEntries)) {
    entries.push_back(Narrow(ReadText(kEntries, name).value_or(L"")));
  }
  return entries;
}

std::string EventLogNumbers() {
  std::string numbers;
  for (const std::string& entry : EventLogEntries()) {
    std::istringstream words(entry);
    std::string source, type, number;
    words >> source >> type >> number;
    numbers += (numbers.empty() ? "" : " ") + number;
  }
  return numbers;
}

}  // namespace sim

using namespace sim;

SIM(HANDLE, RegisterEventSourceW, LPCWSTR server, LPCWSTR source) {
  if (server != nullptr) {
    Violation("RegisterEventSourceW: another computer");
  }
  if (_wcsicmp(source, L"Security") == 0) {  // is the system's alone
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  const std::lock_guard guard(mutex);
  const auto handle = reinterpret_cast<HANDLE>(++lastSource);  // NOLINT(performance-no-int-to-ptr)
  sources->emplace(handle, source);
  return handle;
}

SIM(WINBOOL, ReportEventW, HANDLE log, WORD type, WORD /*category*/, DWORD number, PSID /*user*/, WORD count,
    DWORD /*size*/, LPCWSTR* texts, LPVOID /*data*/) {
  sim_Sleep(eventLog.takes.Get());
  if (eventLog.error.Get() != 0) {
    return Fail(eventLog.error.Get());
  }
  const std::lock_guard guard(mutex);
  const auto source = sources->find(log);
  if (source == sources->end()) {
    return Fail(ERROR_INVALID_HANDLE);
  }
  std::wstring entry = source->second + L" " + TypeName(type) + L" " + std::to_wstring(number & 0xFFFF);
  for (WORD i = 0; i < count; ++i) {
    const std::wstring text = texts[i];
    if (text.size() > kLongestText) {
      Violation("ReportEventW: a text of %zu characters", text.size());
    }
    entry += L" [" + text + L"]";
  }
  const std::wstring place = std::to_wstring(1'000'000 + ValueNames(kEntries).size());  // so that they sort by time
  WriteText(kEntries, place, entry);
  return TRUE;
}

SIM(WINBOOL, DeregisterEventSource, HANDLE log) {
  const std::lock_guard guard(mutex);
  return sources->erase(log) != 0 ? TRUE : Fail(ERROR_INVALID_HANDLE);
}
