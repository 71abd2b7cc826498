#include "service/event_source.h"

#include "log/event_log.h"
#include "log/log.h"
#include "state/registry.h"
#include "win32/file_wait.h"
#include "win32/folder_entries.h"
#include "win32/wide_text.h"

namespace kiosk::service {
namespace {

constexpr wchar_t kLibrary[] = L"" NORVANE_EVENT_LIBRARY;
constexpr wchar_t kLibraries[] = L"NorvaneKioskEvents-????????.dll";

std::wstring FolderOf(const std::wstring& program) { return program.substr(0, program.find_last_of(L'\\')); }

void DeleteOtherLibraries(const std::wstring& folder) {
  for (const win32::FolderEntry& file : win32::EntriesOf(folder, kLibraries)) {
    if (!win32::EqualIgnoringCase(file.Name(), kLibrary)) {
      const win32::FileWaitLimit limit;  // anybody may read what lies beside a program
      if (limit) {
        DeleteFileW(file.path.c_str());
      }
    }
  }
}

}  // namespace

void AddEventSource(const std::wstring& program) {
  const std::wstring folder = FolderOf(program);
  const std::wstring library = folder + L"\\" + kLibrary;
  if (!state::WriteString(log::kEventSourceKey, L"EventMessageFile", library, REG_EXPAND_SZ) ||
      !state::WriteDword(log::kEventSourceKey, L"TypesSupported",
                         EVENTLOG_ERROR_TYPE | EVENTLOG_WARNING_TYPE | EVENTLOG_INFORMATION_TYPE)) {
    log::Log(log::kWarn, log::kKiosk, "--install: cannot tell the event log where the texts of its entries are");
  } else if (!win32::IsPlainFile(GetFileAttributesW(library.c_str()))) {
    log::Log(log::kWarn, log::kKiosk, "--install: %s is missing; the event log shows its entries without their texts",
             win32::ToNarrow(library).c_str());
  }
  DeleteOtherLibraries(folder);
}

void RemoveEventSource(const std::wstring& program) {
  const LSTATUS error = RegDeleteKeyExW(HKEY_LOCAL_MACHINE, log::kEventSourceKey, KEY_WOW64_64KEY, 0);
  if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) {
    log::Log(log::kWarn, log::kKiosk, "cannot take this service out of the event log (%ld)", error);
  }
  DeleteOtherLibraries(FolderOf(program));
}

}  // namespace kiosk::service
