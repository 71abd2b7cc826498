#include "service/crash.h"

#include "log/event_log.h"
#include "log/local_log.h"
#include "log/log.h"
#include "log/shipper/shipper.h"
#include "state/folders.h"
#include "win32/folder_entries.h"
#include "win32/handle.h"
#include "win32/secure_folder.h"
#include "win32/security.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <dbghelp.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>

namespace kiosk::service {
namespace {

constexpr DWORD kTimeToReport = 10'000;
constexpr std::size_t kDumpsPerDay = 8;
// A dump while it is being written. It always has this name, so the next report removes what an interrupted one left.
constexpr wchar_t kUnfinished[] = L"\\NorvaneKiosk.dmp.part";
// What Windows itself and OnFault need after a stack overflow, and the smallest stack that can spare that.
constexpr ULONG kStackForFaults = ULONG{48} * 1024;
constexpr ULONG_PTR kLeastStack = win32::kSmallStack;
// What this compiler's C++ exceptions travel as. One that reaches the filter found no handler; continuing lets the C++
// library call std::terminate, which is where it then is reported.
constexpr DWORD kCxxException = 0x20474343;
// "The application ended itself", from our own handlers of terminate and abort.
constexpr DWORD kTerminated = 0xE0000001;

// Set up once, before other threads exist; written by the first faulting thread, read by the reporting one.
HANDLE faulted = nullptr;
HANDLE reported = nullptr;
EXCEPTION_POINTERS* faultDetails = nullptr;
DWORD faultThread = 0;
LONG faults = 0;

// A thread has nothing left for a handler once its stack is full, unless it asked for that before. Windows calls this
// on every thread as it begins, those of its own pools and libraries too (".tls" of the PE format). With the loader's
// lock held: nothing else belongs here.
void NTAPI KeepStackForFaults(void* /*module*/, DWORD reason, void* /*reserved*/) noexcept {
  ULONG_PTR low = 0;
  ULONG_PTR high = 0;
  if (reason == DLL_PROCESS_ATTACH || reason == DLL_THREAD_ATTACH) {
    GetCurrentThreadStackLimits(&low, &high);
    if (ULONG size = kStackForFaults; high - low >= kLeastStack) {
      SetThreadStackGuarantee(&size);
    }
  }
}

// The linker makes the image's table of such functions of the sections with this name.
[[gnu::section(".CRT$XLD"), gnu::used]] const PIMAGE_TLS_CALLBACK keepStackForFaults = KeepStackForFaults;

std::array<char, 32> Place(const void* address) noexcept {
  const auto* base = reinterpret_cast<const BYTE*>(GetModuleHandleW(nullptr));
  const auto* headers =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto from = reinterpret_cast<std::uintptr_t>(base);
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const bool ours = at >= from && at - from < headers->OptionalHeader.SizeOfImage;
  std::array<char, 32> text;
  static_cast<void>(std::snprintf(text.data(), text.size(), ours ? "program+0x%llx" : "0x%llx",
                                  static_cast<unsigned long long>(ours ? at - from : at)));
  return text;
}

std::size_t DumpsOf(const std::wstring& day) {
  return win32::EntriesOf(state::kLogRoot, (L"NorvaneKiosk-" + day + L"-*.dmp").c_str()).size();
}

// The dump shows memory, and the log root is not sure to be private: where its folders could not be secured it may be
// anybody's. So the file is private by itself. False with the last error.
bool FillDump(const std::wstring& path) {
  const win32::SecurityDescriptor descriptor(win32::kPrivateFolderSddl);
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  HMODULE library = LoadLibraryExW(L"dbghelp.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (library == nullptr) {
    return false;
  }
  const auto writeDump = reinterpret_cast<decltype(&MiniDumpWriteDump)>(
      reinterpret_cast<void*>(GetProcAddress(library, "MiniDumpWriteDump")));
  if (writeDump == nullptr || !descriptor) {
    return false;
  }
  const win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &security, CREATE_NEW,
                                           FILE_ATTRIBUTE_NORMAL, nullptr));
  MINIDUMP_EXCEPTION_INFORMATION details{faultThread, faultDetails, FALSE};
  return file &&
         writeDump(GetCurrentProcess(), GetCurrentProcessId(), file.Get(), MiniDumpNormal, &details, nullptr,
                   nullptr) != 0 &&
         FlushFileBuffers(file.Get()) != 0;
}

// Whoever finds a dump under its own name finds a whole one.
bool WriteDump(const std::wstring& path) {
  const std::wstring unfinished = std::wstring(state::kLogRoot) + kUnfinished;
  DeleteFileW(unfinished.c_str());
  if (FillDump(unfinished) && MoveFileExW(unfinished.c_str(), path.c_str(), MOVEFILE_WRITE_THROUGH) != 0) {
    return true;
  }
  const DWORD error = GetLastError();
  DeleteFileW(unfinished.c_str());
  SetLastError(error);
  return false;
}

void KeepDump() {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t day[16];
  static_cast<void>(std::swprintf(day, std::size(day), L"%04d%02d%02d", now.wYear, now.wMonth, now.wDay));
  if (DumpsOf(day) >= kDumpsPerDay) {
    log::LogLocal(log::kError, "fault: no more dumps today");
    return;
  }
  wchar_t name[80];
  static_cast<void>(std::swprintf(name, std::size(name), L"\\NorvaneKiosk-%ls-%02d%02d%02d-%lu.dmp", day, now.wHour,
                                  now.wMinute, now.wSecond, GetCurrentProcessId()));
  const std::wstring path = std::wstring(state::kLogRoot) + name;
  if (WriteDump(path)) {
    log::LogLocal(log::kError, "fault: dump in %s", win32::ToNarrow(path).c_str());
  } else {
    log::LogLocal(log::kError, "fault: no dump (0x%08lx)", GetLastError());
  }
}

// The thread that is gone may hold the heap, the loader or any lock. So what needs least comes first: the line in the
// local file, then the dump, then the central log, whose spool the next run finds, and last the event log, which is
// another process's.
void Report() {
  const EXCEPTION_RECORD& record = *faultDetails->ExceptionRecord;
  const auto place = Place(record.ExceptionAddress);
  char text[80];
  static_cast<void>(std::snprintf(text, std::size(text), "fault 0x%08lx at %s; the process ends", record.ExceptionCode,
                                  place.data()));
  log::LogFault("%s", text);
  KeepDump();
  log::shipper::HandOff(log::kError, log::kKiosk, text);
  log::CloseCentral();
  char code[16];
  static_cast<void>(std::snprintf(code, std::size(code), "0x%08lx", record.ExceptionCode));
  log::WriteEventHere(ENTRY_CRASHED, {code, place.data()});
}

LONG WINAPI OnFault(EXCEPTION_POINTERS* details) noexcept {
  if (details->ExceptionRecord->ExceptionCode == kCxxException &&
      (details->ExceptionRecord->ExceptionFlags & EXCEPTION_NONCONTINUABLE) == 0) {
    return EXCEPTION_CONTINUE_EXECUTION;
  }
  if (InterlockedIncrement(&faults) == 1) {
    faultDetails = details;
    faultThread = GetCurrentThreadId();
    SetEvent(faulted);
  }
  // A second fault, of another thread or of the reporting one, waits for the first one's report; the first ends the
  // process.
  WaitForSingleObject(reported, kTimeToReport);
  return EXCEPTION_EXECUTE_HANDLER;
}

[[noreturn]] void EndAsFault() noexcept {
  RaiseException(kTerminated, EXCEPTION_NONCONTINUABLE, 0, nullptr);
  log::EndProcess(kTerminated);
}

}  // namespace

void InstallCrashHandler() noexcept {
  faulted = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  reported = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (faulted == nullptr || reported == nullptr) {
    return;
  }
  const win32::KernelHandle reporter = win32::StartThread(
      []() noexcept {
        static_cast<void>(Place(nullptr));  // the C library takes a thread's variables from the heap at their first use
        if (WaitForSingleObject(faulted, INFINITE) != WAIT_OBJECT_0) {
          return;
        }
        try {
          Report();
        } catch (const std::exception&) {  // no memory for a path: the process ends without the rest of the report
        }
        SetEvent(reported);
      },
      win32::kSmallStack);
  if (!reporter) {
    return;
  }
  SetUnhandledExceptionFilter(OnFault);
  std::set_terminate(EndAsFault);
  static_cast<void>(std::signal(SIGABRT, [](int) { EndAsFault(); }));
}

}  // namespace kiosk::service
