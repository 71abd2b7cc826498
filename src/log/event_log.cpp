#include "log/event_log.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/lock.h"
#include "win32/owners.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <atomic>
#include <exception>
#include <memory>
#include <string>
#include <vector>

namespace kiosk::log {
namespace {

constexpr DWORD kTimeToWrite = 2'000;
constexpr int kMostAtOnce = 4;

std::atomic<int> entries{0};          // that are being written
std::atomic<bool> lossIsTold{false};  // by a line of the log, since the last entry that Windows took

struct Entry {
  Entry(DWORD wanted, std::initializer_list<std::string_view> inserted) : number(wanted) {
    for (const std::string_view text : inserted) {
      texts.push_back(win32::ToWide(text));
    }
    ++entries;
  }
  Entry(const Entry&) = delete;
  Entry& operator=(const Entry&) = delete;
  ~Entry() { --entries; }

  const DWORD number;
  std::vector<std::wstring> texts;
  std::atomic<DWORD> error{ERROR_TIMEOUT};  // until the call is back
};

win32::Lock lock{win32::LockRank::kLeaf};
DWORD toldHere GUARDED_BY(lock) = 0;  // "ToldTroubles", also while the registry does not take it

// The severity stands in the number's two highest bits.
WORD TypeOf(DWORD number) noexcept {
  switch (number >> 30) {
    case ENTRY_SEVERITY_ERROR:
      return EVENTLOG_ERROR_TYPE;
    case ENTRY_SEVERITY_WARNING:
      return EVENTLOG_WARNING_TYPE;
    default:
      return EVENTLOG_INFORMATION_TYPE;
  }
}

DWORD Write(const Entry& entry) {
  std::vector<const wchar_t*> texts;
  for (const std::wstring& text : entry.texts) {
    texts.push_back(text.c_str());
  }
  const win32::EventSource source(RegisterEventSourceW(nullptr, kEventSource));
  const bool written = source && ReportEventW(source.Get(), TypeOf(entry.number), 0, entry.number, nullptr,
                                              static_cast<WORD>(texts.size()), 0, texts.data(), nullptr) != 0;
  return written ? ERROR_SUCCESS : GetLastError();
}

// The entry is shared with the thread, which may outlive the wait.
DWORD WriteInTime(const std::shared_ptr<Entry>& entry) {
  if (entries > kMostAtOnce) {
    return ERROR_BUSY;
  }
  const win32::KernelHandle thread = win32::StartThread(
      [entry]() noexcept {
        try {
          entry->error = Write(*entry);
        } catch (const std::exception&) {
          entry->error = ERROR_OUTOFMEMORY;
        }
      },
      win32::kSmallStack);
  if (!thread) {
    return GetLastError();
  }
  // Not ended by a stop: its own entry is among those that are waited for.
  WaitForSingleObject(thread.Get(), kTimeToWrite);
  return entry->error;
}

}  // namespace

void WriteEvent(DWORD number, std::initializer_list<std::string_view> texts) {
  const DWORD error = WriteInTime(std::make_shared<Entry>(number, texts));
  if (error == ERROR_SUCCESS) {
    lossIsTold = false;
  } else if (!lossIsTold.exchange(true)) {
    Log(kWarn, kKiosk, "event log: entry %lu is lost (%lu), and those to come until Windows takes them",
        number & 0xFFFF, error);
  }
}

void WriteEventHere(DWORD number, std::initializer_list<std::string_view> texts) {
  static_cast<void>(Write({number, texts}));
}

void TellTrouble(Trouble trouble, DWORD number, std::initializer_list<std::string_view> texts) {
  {
    const win32::LockGuard guard(lock);
    toldHere |= state::ReadStateDword(state::kToldTroubles);
    if ((toldHere & trouble) != 0) {
      return;
    }
    toldHere |= trouble;
    state::WriteStateDword(state::kToldTroubles, toldHere);
  }
  WriteEvent(number, texts);
}

bool TroubleIsOver(DWORD troubles) {
  const win32::LockGuard guard(lock);
  toldHere |= state::ReadStateDword(state::kToldTroubles);
  if ((toldHere & troubles) == 0) {
    return false;
  }
  toldHere &= ~troubles;
  if (toldHere == 0) {
    state::DeleteStateValue(state::kToldTroubles);
  } else {
    state::WriteStateDword(state::kToldTroubles, toldHere);
  }
  return true;
}

}  // namespace kiosk::log
