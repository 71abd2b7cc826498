#include "sim/threads.h"

#include "sim/clock_internal.h"
#include "sim/seam.h"

#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

namespace sim {
namespace {

std::atomic<bool> noEvents{false};

std::mutex poolMutex;  // guards the three below
DWORD poolLimit = 512;
DWORD poolThreads = 0;                                           // that run work items
std::deque<std::pair<LPTHREAD_START_ROUTINE, void*>> workItems;  // for which there is no thread yet

// Null: the thread goes.
std::unique_ptr<Start> NextItem() {
  const std::lock_guard guard(poolMutex);
  if (workItems.empty()) {
    --poolThreads;
    return nullptr;
  }
  const auto [body, argument] = workItems.front();
  workItems.pop_front();
  return Starting(body, argument, false);
}

DWORD WINAPI RunItems(void* first) {
  for (std::unique_ptr<Start> item(static_cast<Start*>(first)); item; item = NextItem()) {
    item->participant != nullptr ? RunStarted(item.release()) : item->body(item->argument);
  }
  return 0;
}

void NTAPI OnThread(void* /*module*/, DWORD reason, void* /*reserved*/) {
  if (reason == DLL_THREAD_ATTACH && !(TouchClock() && TouchFaults() && TouchLocks())) {
    Violation("a thread begins with what another one left");
  }
}

[[gnu::section(".CRT$XLE"), gnu::used]] const PIMAGE_TLS_CALLBACK onThread = OnThread;

}  // namespace

void LimitPool(DWORD threads) {
  const std::lock_guard guard(poolMutex);
  poolLimit = threads;
}

NoEvents::NoEvents() { noEvents = true; }
NoEvents::~NoEvents() { noEvents = false; }

}  // namespace sim

using namespace sim;

// Windows' pages stand guard where the guarantee begins; Wine's one page is moved there. When a thread begins Wine
// clears its stack to 960 KB below the top, which a guarantee of more than 60 KB would run into.
SIM(WINBOOL, SetThreadStackGuarantee, PULONG size) {
  constexpr ULONG_PTR kPage = 4096;
  const ULONG_PTR wanted = (*size + kPage - 1) / kPage * kPage;
  ULONG_PTR low = 0;
  ULONG_PTR high = 0;
  GetCurrentThreadStackLimits(&low, &high);
  if (wanted >= high - low) {
    SetLastError(ERROR_INVALID_PARAMETER);
    return FALSE;
  }
  const BOOL done = ::SetThreadStackGuarantee(size);
  auto* const guard = reinterpret_cast<void*>(low + wanted);  // NOLINT(performance-no-int-to-ptr): told as numbers
  DWORD before = 0;
  return done && (wanted <= *size || VirtualProtect(guard, kPage, PAGE_READWRITE | PAGE_GUARD, &before));
}

SIM(HANDLE, CreateEventW, LPSECURITY_ATTRIBUTES security, WINBOOL manual, WINBOOL set, LPCWSTR name) {
  if (noEvents) {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return nullptr;
  }
  return ::CreateEventW(security, manual, set, name);
}

SIM(BOOL, QueueUserWorkItem, LPTHREAD_START_ROUTINE body, PVOID argument, ULONG flags) {
  const std::lock_guard guard(poolMutex);
  if (const ULONG limit = flags >> 16; limit != 0) {
    poolLimit = limit;
  }
  if (poolThreads >= poolLimit) {
    workItems.emplace_back(body, argument);
    return TRUE;
  }
  std::unique_ptr<Start> item = Starting(body, argument, false);
  if (!::QueueUserWorkItem(RunItems, item.get(), flags & 0xffff)) {
    if (item->participant != nullptr) {
      NotStarted(*item);
    }
    return FALSE;
  }
  static_cast<void>(item.release());
  ++poolThreads;
  return TRUE;
}
