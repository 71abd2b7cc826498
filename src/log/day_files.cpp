#include "log/day_files.h"

#include "log/day_name.h"
#include "state/folders.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/lock.h"
#include "win32/secure_folder.h"

#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <cwchar>
#include <tuple>

namespace kiosk::log {
namespace {

using win32::FileHandle;

constexpr std::size_t kMaxOpenFiles = 32;
constexpr std::size_t kNameSize = 64;
constexpr std::uint64_t kDayStands = 60'000;   // ms
constexpr std::uint64_t kSecureAgain = 5'000;  // ms

struct WriteLock {
  win32::Lock lock{win32::LockRank::kLogFile};
};

struct OpenFile {
  std::array<char, kNameSize> component;
  HANDLE file;
};

// Nothing here has a destructor: threads may log until the process is gone, and Windows closes the files then.
win32::Lock lock{win32::LockRank::kLog};
std::array<OpenFile, kMaxOpenFiles> openFiles GUARDED_BY(lock);
std::size_t openCount GUARDED_BY(lock) = 0;
WORD currentYear GUARDED_BY(lock) = 0;        // 0: no day chosen yet
std::uint64_t chosenAt GUARDED_BY(lock) = 0;  // tick count
WORD currentMonth GUARDED_BY(lock) = 0;
WORD currentDay GUARDED_BY(lock) = 0;
std::array<wchar_t, 96> dayFolder GUARDED_BY(lock);
std::array<wchar_t, 8> dayStamp GUARDED_BY(lock);
bool daySecured GUARDED_BY(lock) = false;
std::uint64_t nextTryToSecure GUARDED_BY(lock) = 0;  // tick count; while the folder is not secured

// One for each place in the table, for whole lines while `lock` is shared: not every file system finds the end of the
// file and writes there in one step.
std::array<WriteLock, kMaxOpenFiles> writeLocks;

// A write that came onto the disk in part left a file that ends within a line: what is written next begins a new one.
std::atomic<bool> torn{false};

// Also when its date is the earlier one and the day is new: a thread that took its time before midnight comes late, or
// the clock is put right across it, and neither is to close all files and begin others twice.
bool IsCurrentDay(const SYSTEMTIME& now) noexcept REQUIRES_SHARED(lock) {
  const auto current = std::tie(currentYear, currentMonth, currentDay);
  const auto wanted = std::tie(now.wYear, now.wMonth, now.wDay);
  return wanted == current || (wanted < current && win32::TickCount() - chosenAt < kDayStands);
}

OpenFile* Find(const char* component) noexcept REQUIRES_SHARED(lock) {
  for (std::size_t i = 0; i < openCount; ++i) {
    if (std::strncmp(openFiles[i].component.data(), component, kNameSize - 1) == 0) {
      return &openFiles[i];
    }
  }
  return nullptr;
}

bool WriteWhole(HANDLE file, std::string_view line) noexcept {
  DWORD written = 0;
  const bool whole =
      WriteFile(file, line.data(), static_cast<DWORD>(line.size()), &written, nullptr) != 0 && written == line.size();
  if (!whole && written != 0) {
    torn = true;
  }
  return whole;
}

void CloseAll() noexcept REQUIRES(lock) {
  for (std::size_t i = 0; i < openCount; ++i) {
    FileHandle(openFiles[i].file).Reset();
  }
  openCount = 0;
}

void Remove(OpenFile* entry) noexcept REQUIRES(lock) {
  FileHandle(entry->file).Reset();
  *entry = openFiles[--openCount];
}

// A plain file with one name. Somebody who could write here before the folder was secured may have left a link to
// another file under a name that he guessed.
bool IsPlainFile(HANDLE file) noexcept {
  BY_HANDLE_FILE_INFORMATION info;
  return GetFileInformationByHandle(file, &info) != 0 && info.nNumberOfLinks == 1 &&
         (info.dwFileAttributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) == 0;
}

bool SecureDayFolder() noexcept REQUIRES(lock) {
  daySecured = static_cast<bool>(
      win32::SecureFolder(dayFolder.data(), win32::kPrivateFolderSddl, win32::ForeignFolder::kSetAside));
  nextTryToSecure = win32::TickCount() + kSecureAgain;
  return daySecured;
}

FileHandle OpenForAppend(const wchar_t* path) noexcept {
  return FileHandle(CreateFileW(path, FILE_APPEND_DATA | FILE_READ_ATTRIBUTES, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                nullptr, OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
}

// Nothing is opened in a folder that is not secured: it may be a stranger's, or lead to one.
FileHandle OpenComponentFile(const char* component) noexcept REQUIRES(lock) {
  if (!daySecured && (win32::TickCount() < nextTryToSecure || !SecureDayFolder())) {
    return {};
  }
  std::array<wchar_t, kNameSize> name;
  if (MultiByteToWideChar(CP_UTF8, 0, component, -1, name.data(), static_cast<int>(name.size())) == 0) {
    return {};
  }
  std::array<wchar_t, 192> path;
  static_cast<void>(
      std::swprintf(path.data(), path.size(), L"%ls\\%ls_%ls.log", dayFolder.data(), name.data(), dayStamp.data()));
  FileHandle file = OpenForAppend(path.data());
  if (!file && GetLastError() == ERROR_PATH_NOT_FOUND && SecureDayFolder()) {
    file = OpenForAppend(path.data());
  }
  if (file && !IsPlainFile(file.Get())) {
    file.Reset();
  }
  return file;
}

// Writes to the open file, if there is one; `failed` gets the one that did not take the line.
bool AppendToOpen(const char* component, std::string_view line, HANDLE& failed) noexcept {
  const win32::SharedLockGuard guard(lock);
  const OpenFile* entry = Find(component);
  if (entry == nullptr) {
    return false;
  }
  const win32::LockGuard write(writeLocks[static_cast<std::size_t>(entry - openFiles.data())].lock);
  failed = entry->file;
  return !torn && WriteWhole(entry->file, line);
}

}  // namespace

bool ChooseDay(const SYSTEMTIME& now) noexcept {
  {
    const win32::SharedLockGuard guard(lock);
    if (IsCurrentDay(now)) {
      return false;
    }
  }
  const win32::LockGuard guard(lock);
  if (IsCurrentDay(now)) {
    return false;
  }
  CloseAll();
  const bool replaced = currentYear != 0;
  chosenAt = win32::TickCount();
  currentYear = now.wYear;
  currentMonth = now.wMonth;
  currentDay = now.wDay;
  static_cast<void>(std::swprintf(dayFolder.data(), dayFolder.size(), L"%ls\\%ls", state::kLogRoot,
                                  DayName(now.wYear, now.wMonth, now.wDay).data()));
  static_cast<void>(
      std::swprintf(dayStamp.data(), dayStamp.size(), L"%02d%02d%02d", now.wHour, now.wMinute, now.wSecond));
  static_cast<void>(SecureDayFolder());
  return replaced;
}

void AppendLine(const char* component, std::string_view line) noexcept {
  HANDLE failed = nullptr;
  if (AppendToOpen(component, line, failed)) {
    return;
  }
  const win32::LockGuard guard(lock);
  if (OpenFile* entry = Find(component)) {
    // Another thread may have opened it since.
    if (entry->file != failed && WriteWhole(entry->file, line)) {
      return;
    }
    Remove(entry);
  }
  FileHandle file = currentYear != 0 ? OpenComponentFile(component) : FileHandle();
  if (!file || (torn && !WriteWhole(file.Get(), "\n"))) {
    return;
  }
  torn = false;
  if (WriteWhole(file.Get(), line) && openCount < kMaxOpenFiles) {
    OpenFile& entry = openFiles[openCount++];
    entry.component.fill('\0');
    std::strncpy(entry.component.data(), component, kNameSize - 1);
    entry.file = file.Release();
  }
}

}  // namespace kiosk::log
