// Threads, events, locks and processes.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <atomic>

namespace contract {
namespace {

using kiosk::win32::KernelHandle;

KernelHandle Event(bool manual, bool set) {
  return KernelHandle(CreateEventW(nullptr, manual ? TRUE : FALSE, set ? TRUE : FALSE, nullptr));
}

DWORD WINAPI SetIt(void* event) {
  SetEvent(event);
  return 7;
}

void EventsReset(Asked& asked) {
  const KernelHandle automatic = Event(false, true);
  asked.Same("first wait", WaitForSingleObject(automatic.Get(), 0), WAIT_OBJECT_0);
  asked.Same("second wait", WaitForSingleObject(automatic.Get(), 0), WAIT_TIMEOUT);
  const KernelHandle manual = Event(true, false);
  SetEvent(manual.Get());
  asked.Same("manual, first wait", WaitForSingleObject(manual.Get(), 0), WAIT_OBJECT_0);
  asked.Same("manual, second wait", WaitForSingleObject(manual.Get(), 0), WAIT_OBJECT_0);
}

void LowestIndexWins(Asked& asked) {
  const KernelHandle first = Event(true, false);
  const KernelHandle second = Event(true, true);
  const KernelHandle third = Event(true, true);
  const HANDLE all[] = {first.Get(), second.Get(), third.Get()};
  asked.Same("the wait", WaitForMultipleObjects(3, all, FALSE, 1000), WAIT_OBJECT_0 + 1);
  asked.Same("a wait for all", WaitForMultipleObjects(3, all, TRUE, 0), WAIT_TIMEOUT);
}

void BadHandlesFail(Asked& asked) {
  asked.Same("the wait", WaitForSingleObject(nullptr, 0), WAIT_FAILED);
  asked.Same("its error", GetLastError(), ERROR_INVALID_HANDLE);
}

void ThreadEnds(Asked& asked) {
  const KernelHandle event = Event(true, false);
  const KernelHandle thread(CreateThread(nullptr, 0, SetIt, event.Get(), 0, nullptr));
  asked.True("CreateThread", static_cast<bool>(thread));
  asked.Same("the wait for its end", WaitForSingleObject(thread.Get(), 10'000), WAIT_OBJECT_0);
  DWORD code = 0;
  asked.True("GetExitCodeThread", GetExitCodeThread(thread.Get(), &code) != 0);
  asked.Same("its exit code", code, 7);
  asked.Same("what it did", WaitForSingleObject(event.Get(), 0), WAIT_OBJECT_0);
}

void WorkItemRuns(Asked& asked) {
  const KernelHandle event = Event(true, false);
  asked.True("QueueUserWorkItem", QueueUserWorkItem(SetIt, event.Get(), WT_EXECUTEDEFAULT) != 0);
  asked.Same("the wait", WaitForSingleObject(event.Get(), 10'000), WAIT_OBJECT_0);
}

struct Shared {
  SRWLOCK lock = SRWLOCK_INIT;
  std::atomic<int> inside{0};
};

DWORD WINAPI EnterShared(void* data) {
  auto* const shared = static_cast<Shared*>(data);
  AcquireSRWLockShared(&shared->lock);
  ++shared->inside;
  ReleaseSRWLockShared(&shared->lock);
  return 0;
}

void LocksShare(Asked& asked) {
  Shared shared;
  AcquireSRWLockShared(&shared.lock);
  const KernelHandle reader(CreateThread(nullptr, 0, EnterShared, &shared, 0, nullptr));
  asked.Same("a second reader", WaitForSingleObject(reader.Get(), 10'000), WAIT_OBJECT_0);
  ReleaseSRWLockShared(&shared.lock);
  AcquireSRWLockExclusive(&shared.lock);
  const KernelHandle waiting(CreateThread(nullptr, 0, EnterShared, &shared, 0, nullptr));
  asked.Same("a reader beside a writer", WaitForSingleObject(waiting.Get(), 200), WAIT_TIMEOUT);
  ReleaseSRWLockExclusive(&shared.lock);
  asked.Same("the same when it has gone", WaitForSingleObject(waiting.Get(), 10'000), WAIT_OBJECT_0);
  asked.Same("readers", shared.inside.load(), 2);
}

DWORD WINAPI Guarantee(void* data) {
  ULONG size = 32 * 1024;
  const bool set = SetThreadStackGuarantee(&size) != 0;
  ULONG now = 0;
  *static_cast<bool*>(data) = set && SetThreadStackGuarantee(&now) != 0 && now >= 32 * 1024;
  return 0;
}

// "SetThreadStackGuarantee function": the size is rounded up; 0 asks for the present one. At least as much is kept.
void StackIsKept(Asked& asked) {
  bool kept = false;
  const KernelHandle thread(CreateThread(nullptr, 524'288, Guarantee, &kept, 0, nullptr));
  WaitForSingleObject(thread.Get(), 10'000);
  asked.True("32 KB are kept", kept);
}

// "SetThreadExecutionState function": the former state, never 0 but for a failure.
void ExecutionStateIsTold(Asked& asked) {
  asked.True("first", SetThreadExecutionState(ES_CONTINUOUS | ES_SYSTEM_REQUIRED) != 0);
  asked.True("second", SetThreadExecutionState(ES_CONTINUOUS) != 0);
}

void ProcessEnds(Asked& asked) {
  wchar_t command[] = L"cmd.exe /c exit 7";
  STARTUPINFOW startup{};
  startup.cb = sizeof(startup);
  PROCESS_INFORMATION process{};
  Asked::Needs(CreateProcessW(nullptr, command, nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &startup,
                              &process) != 0,
               "a process of cmd.exe");
  const KernelHandle thread(process.hThread);
  const KernelHandle owned(process.hProcess);
  asked.Same("the wait", WaitForSingleObject(owned.Get(), 30'000), WAIT_OBJECT_0);
  DWORD code = 0;
  asked.True("GetExitCodeProcess", GetExitCodeProcess(owned.Get(), &code) != 0);
  asked.Same("its exit code", code, 7);
  asked.Fails("a program that is not there",
              CreateProcessW(L"C:\\NorvaneProof.exe", nullptr, nullptr, nullptr, FALSE, 0, nullptr, nullptr, &startup,
                             &process) != 0,
              {ERROR_FILE_NOT_FOUND});
}

void ImageNameWantsRoom(Asked& asked) {
  wchar_t path[1024];
  DWORD size = 4;
  asked.Fails("4 characters", QueryFullProcessImageNameW(GetCurrentProcess(), 0, path, &size) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
  size = 1024;
  asked.True("1,024 characters", QueryFullProcessImageNameW(GetCurrentProcess(), 0, path, &size) != 0);
  asked.Same("the length that it tells", size, std::wcslen(path));
}

void LibrariesAreFound(Asked& asked) {
  const HMODULE library = LoadLibraryExW(L"ntdll.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  asked.True("ntdll.dll", library != nullptr);
  asked.True("RtlGetVersion", GetProcAddress(library, "RtlGetVersion") != nullptr);
  asked.Fails("a function that it lacks", GetProcAddress(library, "NorvaneProof") != nullptr, {ERROR_PROC_NOT_FOUND});
  asked.Fails("a library that is not there",
              LoadLibraryExW(L"NorvaneProof.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32) != nullptr,
              {ERROR_MOD_NOT_FOUND});
}

// "AdjustTokenPrivileges function": a success although a privilege is not held is told by the last error alone.
void PrivilegeNotHeld(Asked& asked) {
  kiosk::win32::KernelHandle token;
  asked.True("OpenProcessToken",
             OpenProcessToken(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token.Put()) != 0);
  TOKEN_PRIVILEGES privileges{1, {{{0x7FFFFFFE, 0}, SE_PRIVILEGE_ENABLED}}};
  const BOOL done = AdjustTokenPrivileges(token.Get(), FALSE, &privileges, 0, nullptr, nullptr);
  asked.True("AdjustTokenPrivileges", done != 0);
  asked.Same("its last error", GetLastError(), ERROR_NOT_ALL_ASSIGNED);
}

constexpr Case kCases[] = {
    {"events", "an automatic event is reset by one wait, a manual one by none", EventsReset},
    {"several objects", "of several set objects the lowest index is told", LowestIndexWins},
    {"bad handle", "a wait for no object fails at once", BadHandlesFail},
    {"thread", "a thread that has ended is signaled and has its exit code", ThreadEnds},
    {"work item", "the pool runs a work item", WorkItemRuns},
    {"locks", "readers share an SRW lock, a writer has it alone", LocksShare},
    {"stack", "a thread keeps as much stack for an overflow as it asked for", StackIsKept},
    {"execution state", "the former execution state is never 0", ExecutionStateIsTold},
    {"process", "a process has its exit code; one that is not there cannot be started", ProcessEnds},
    {"image name", "a path that does not fit is an error, and nothing else", ImageNameWantsRoom},
    {"libraries", "libraries and their functions are found, others are errors", LibrariesAreFound},
    {"privilege", "a privilege that is not held is told by the last error of a success", PrivilegeNotHeld},
};

}  // namespace

extern const Group kThreads;
const Group kThreads{"threads", kCases};

}  // namespace contract
