#include "log/housekeeping.h"

#include "log/day_name.h"
#include "log/log_settings.h"
#include "state/folders.h"
#include "win32/clock.h"
#include "win32/file_wait.h"
#include "win32/folder_entries.h"
#include "win32/handle.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::log {
namespace {

using win32::FolderEntry;

constexpr std::uint64_t kArchiveLife = std::uint64_t{30} * 24 * 3600 * win32::kFileTimeSecond;
constexpr std::uint64_t kArchiveTime = 5'000;  // ms; where somebody locks the files, however many they are
constexpr std::uint32_t kDefaultCapMegabytes = 5120;

bool ArchiveIsPlain() noexcept { return win32::IsPlainFolder(GetFileAttributesW(state::kLogArchive)); }

std::vector<FolderEntry> DayFolders() {
  std::vector<FolderEntry> folders = win32::EntriesOf(state::kLogRoot);
  std::erase_if(folders, [](const FolderEntry& each) {
    return !win32::IsPlainFolder(each.attributes) || !IsDayName(each.Name());
  });
  return folders;
}

std::vector<FolderEntry> FilesOf(const std::wstring& folder, const wchar_t* pattern = L"*") {
  std::vector<FolderEntry> files = win32::EntriesOf(folder, pattern);
  std::erase_if(files, [](const FolderEntry& each) { return !win32::IsPlainFile(each.attributes); });
  return files;
}

// Those in the folder itself that are named like a log or a dump.
std::vector<FolderEntry> FlatFilesOf(const wchar_t* folder) {
  std::vector<FolderEntry> files = FilesOf(folder, L"*.log");
  std::ranges::move(FilesOf(folder, L"*.dmp"), std::back_inserter(files));
  return files;
}

// By handle, without following links. A file that somebody has open stays.
bool DeleteClosedFile(const std::wstring& path) {
  const win32::FileHandle file(
      CreateFileW(path.c_str(), DELETE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FILE_DISPOSITION_INFO disposition{TRUE};
  return file && SetFileInformationByHandle(file.Get(), FileDispositionInfo, &disposition, sizeof(disposition)) != 0;
}

void DeleteOldest(std::vector<FolderEntry>& files, std::uint64_t cap) {
  std::uint64_t total = 0;
  for (const FolderEntry& file : files) {
    total += file.size;
  }
  if (total <= cap) {
    return;
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const FolderEntry& left, const FolderEntry& right) { return left.lastWrite < right.lastWrite; });
  for (const FolderEntry& file : files) {
    if (total <= cap) {
      return;
    }
    if (DeleteClosedFile(file.path)) {
      total -= file.size;
    }
  }
}

void PruneLocked() {
  const std::uint32_t configured = ReadSettingNumber(L"LogCapMB").value_or(0);
  const std::uint64_t cap = (configured != 0 ? configured : kDefaultCapMegabytes) * std::uint64_t{1048576};
  std::vector<FolderEntry> files = FlatFilesOf(state::kLogRoot);
  if (ArchiveIsPlain()) {
    std::ranges::move(FilesOf(state::kLogArchive), std::back_inserter(files));
  }
  const std::vector<FolderEntry> days = DayFolders();
  for (const FolderEntry& day : days) {
    std::ranges::move(FilesOf(day.path), std::back_inserter(files));
  }
  DeleteOldest(files, cap);

  SYSTEMTIME now;
  GetLocalTime(&now);
  const auto today = DayName(now.wYear, now.wMonth, now.wDay);
  for (const FolderEntry& day : days) {
    if (day.Name() != today.data()) {
      RemoveDirectoryW(day.path.c_str());  // only an empty one goes
    }
  }
}

}  // namespace

void ArchiveOldFiles(const SYSTEMTIME& today) {
  wchar_t date[16];
  static_cast<void>(std::swprintf(date, std::size(date), L"%04d%02d%02d", today.wYear, today.wMonth, today.wDay));
  const win32::Deadline deadline(kArchiveTime);
  for (const FolderEntry& file : FlatFilesOf(state::kLogRoot)) {
    if (file.Name().find(date) == std::wstring_view::npos && !deadline.Passed()) {
      const win32::FileWaitLimit limit;
      if (limit) {
        MoveFileW(file.path.c_str(), (std::wstring(state::kLogArchive) + L"\\").append(file.Name()).c_str());
      }
    }
  }
  if (!ArchiveIsPlain()) {
    return;
  }
  const std::uint64_t now = win32::FileTimeNow();
  for (const FolderEntry& file : FlatFilesOf(state::kLogArchive)) {
    if (file.lastWrite + kArchiveLife < now && !deadline.Passed()) {
      const win32::FileWaitLimit limit;
      if (limit) {
        DeleteFileW(file.path.c_str());
      }
    }
  }
}

void Prune() {
  const win32::KernelHandle mutex(CreateMutexW(nullptr, FALSE, L"Global\\NorvaneLogPrune"));
  if (!mutex) {
    return;
  }
  const DWORD taken = WaitForSingleObject(mutex.Get(), 0);
  if (taken != WAIT_OBJECT_0 && taken != WAIT_ABANDONED) {
    return;
  }
  struct Release {
    HANDLE mutex;
    ~Release() { ReleaseMutex(mutex); }
  } const release{mutex.Get()};
  PruneLocked();
}

}  // namespace kiosk::log
