#include "service/crash.h"

#include "log/day_files.h"
#include "log/log.h"
#include "win32/handle.h"
#include "win32/secure_folder.h"
#include "win32/security.h"
#include "win32/thread.h"
#include "win32/wide_text.h"

#include <dbghelp.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <iterator>
#include <string>

namespace kiosk::service {
namespace {

constexpr DWORD kTimeToReport = 10'000;
constexpr int kDumpsPerDay = 8;
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

std::string Place(const void* address) {
  const auto* base = reinterpret_cast<const BYTE*>(GetModuleHandleW(nullptr));
  const auto* headers =
      reinterpret_cast<const IMAGE_NT_HEADERS*>(base + reinterpret_cast<const IMAGE_DOS_HEADER*>(base)->e_lfanew);
  const auto from = reinterpret_cast<std::uintptr_t>(base);
  const auto at = reinterpret_cast<std::uintptr_t>(address);
  const bool ours = at >= from && at - from < headers->OptionalHeader.SizeOfImage;
  char text[48];
  static_cast<void>(std::snprintf(text, std::size(text), ours ? "program+0x%llx" : "0x%llx",
                                  static_cast<unsigned long long>(ours ? at - from : at)));
  return text;
}

int DumpsOf(const wchar_t* day) {
  WIN32_FIND_DATAW data;
  const win32::FindHandle find(
      FindFirstFileW((std::wstring(log::kLogRoot) + L"\\NorvaneKiosk-" + day + L"-*.dmp").c_str(), &data));
  int count = 0;
  while (find && (count++, FindNextFileW(find.Get(), &data) != 0)) {
  }
  return count;
}

// The dump shows memory, and the log root is not sure to be private: where its folders could not be secured it may be
// anybody's. So the file is private by itself.
bool WriteDump(const std::wstring& path) {
  const win32::SecurityDescriptor descriptor(win32::kPrivateFolderSddl);
  SECURITY_ATTRIBUTES security = descriptor.Attributes();
  HMODULE library = LoadLibraryExW(L"dbghelp.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (library == nullptr) {
    return false;
  }
  const auto writeDump = reinterpret_cast<decltype(&MiniDumpWriteDump)>(
      reinterpret_cast<void*>(GetProcAddress(library, "MiniDumpWriteDump")));
  const win32::FileHandle file(
      descriptor ? CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, &security, CREATE_NEW,
                               FILE_ATTRIBUTE_NORMAL, nullptr)
                 : INVALID_HANDLE_VALUE);
  if (writeDump == nullptr || !file) {
    return false;
  }
  MINIDUMP_EXCEPTION_INFORMATION details{faultThread, faultDetails, FALSE};
  return writeDump(GetCurrentProcess(), GetCurrentProcessId(), file.Get(), MiniDumpNormal, &details, nullptr,
                   nullptr) != 0;
}

// The log line first: it needs nothing but the log's locks, while a dump may stumble over a broken heap.
void Report() {
  const EXCEPTION_RECORD& record = *faultDetails->ExceptionRecord;
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t day[16];
  static_cast<void>(std::swprintf(day, std::size(day), L"%04d%02d%02d", now.wYear, now.wMonth, now.wDay));
  wchar_t name[80];
  static_cast<void>(std::swprintf(name, std::size(name), L"\\NorvaneKiosk-%ls-%02d%02d%02d-%lu.dmp", day, now.wHour,
                                  now.wMinute, now.wSecond, GetCurrentProcessId()));
  const std::wstring path = std::wstring(log::kLogRoot) + name;
  const bool dump = DumpsOf(day) < kDumpsPerDay;
  log::Log(log::kError, log::kKiosk, "fault 0x%08lx at %s; the process ends (%s)", record.ExceptionCode,
           Place(record.ExceptionAddress).c_str(), dump ? win32::ToNarrow(path).c_str() : "no more dumps today");
  if (dump && !WriteDump(path)) {
    DeleteFileW(path.c_str());
  }
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
  const win32::KernelHandle reporter = win32::StartThread(
      []() noexcept {
        WaitForSingleObject(faulted, INFINITE);
        try {
          Report();
        } catch (const std::exception&) {  // no memory for a path: the process ends without a report
        }
        SetEvent(reported);
      },
      win32::kSmallStack);
  if (faulted == nullptr || reported == nullptr || !reporter) {
    return;
  }
  SetUnhandledExceptionFilter(OnFault);
  std::set_terminate(EndAsFault);
  static_cast<void>(std::signal(SIGABRT, [](int) { EndAsFault(); }));
}

}  // namespace kiosk::service
