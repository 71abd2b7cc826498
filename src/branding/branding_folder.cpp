#include "branding/branding_folder.h"

#include "log/log.h"
#include "win32/clock.h"
#include "win32/file_wait.h"
#include "win32/secure_folder.h"
#include "win32/wide_text.h"

#include <algorithm>

namespace kiosk::branding {
namespace {

using win32::FolderStep;
using win32::ForeignFolder;
using State = CachedFile::State;

// The outer two are shared with other programs of the maker, whose content stays.
struct Folder {
  const wchar_t* path;
  const wchar_t* sddl;
  ForeignFolder foreign;
};
constexpr Folder kFolders[] = {
    {state::kMakerFolder, win32::kPrivateFolderSddl, ForeignFolder::kTakeOver},
    {state::kProductFolder, win32::kPrivateFolderSddl, ForeignFolder::kTakeOver},
    {kKioskFolder, win32::kReadableFolderSddl, ForeignFolder::kRemoveOrSetAside},
    {kBrandingFolder, win32::kReadableFolderSddl, ForeignFolder::kRemoveOrSetAside},
};
constexpr std::size_t kAroundBranding = 3;
constexpr std::uint64_t kHour = 3'600'000;

win32::Lock folderLock{win32::LockRank::kBranding};

// A stranger's folder in the way.
struct {
  bool setAside = false;        // this process has set one aside
  bool told = false;            // it is logged that one stays; false again once all folders could be had
  std::uint64_t notBefore = 0;  // tick count of the next try
} stranger GUARDED_BY(FolderLock());

// A line and when it was logged, as a tick count.
using Told = std::pair<std::string, std::uint64_t>;
std::vector<Told>& ToldOfThisHour() REQUIRES(FolderLock()) {
  static auto* const told = new std::vector<Told>;
  return *told;
}

void LogWith(int level, const char* what, const std::wstring& path, DWORD error) REQUIRES(FolderLock()) {
  LogHourly(level, std::string(what) + " " + win32::ToNarrow(path) + " (" + std::to_string(error) + ")");
}

void LogFolder(const wchar_t* path, const win32::FolderResult& result) REQUIRES(FolderLock()) {
  if (result.replaced) {
    LogHourly(log::kWarn, "removing " + win32::ToNarrow(path) + ": not a plain folder");
  }
  switch (result.failedAt) {
    case FolderStep::kDone:
      if (result.setAside) {
        log::Log(log::kWarn, log::kKiosk, "branding: %s belonged to somebody else and is set aside",
                 win32::ToNarrow(path).c_str());
      }
      break;
    case FolderStep::kDisplace:
      if (!std::exchange(stranger.told, true)) {
        LogWith(log::kError, "branding: somebody else's folder is in the way; trying again each hour:", path,
                result.error);
      }
      break;
    case FolderStep::kRemove:
      LogWith(log::kWarn, "cannot remove", path, result.error);
      break;
    case FolderStep::kDescriptor:
      LogHourly(log::kError, "folder security descriptor failed (" + std::to_string(result.error) + ")");
      break;
    case FolderStep::kCreate:
      LogWith(log::kError, "cannot create", path, result.error);
      break;
    case FolderStep::kSecure:
      LogHourly(log::kError, "cannot secure " + win32::ToNarrow(path));
      break;
  }
}

// As Windows takes it literally, also with a dot or a blank at its end.
std::wstring Exact(const std::wstring& path) { return L"\\\\?\\" + path; }

bool Exists(const std::wstring& path) { return GetFileAttributesW(Exact(path).c_str()) != INVALID_FILE_ATTRIBUTES; }

// The paths of the folders that were renamed from `folder`.
std::vector<std::wstring> SetAside(const std::wstring& around, const std::wstring& folder) {
  const std::wstring start = folder + win32::kSetAsideMark;
  std::vector<std::wstring> paths;
  for (const std::wstring& name : win32::NamesIn(around)) {
    std::wstring path = around + L"\\" + name;
    if (win32::EqualIgnoringCase(path.substr(0, start.size()), start)) {
      paths.push_back(std::move(path));
    }
  }
  return paths;
}

bool IsOwnFile(const CachedFile& file) {
  constexpr DWORD kUnusual = FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_READONLY;
  return (file.info.dwFileAttributes & kUnusual) == 0 && file.info.nNumberOfLinks == 1 &&
         win32::HasTrustedOwner(file.handle.Get());
}

DWORD WriteNew(HANDLE file, std::string_view bytes) noexcept {
  DWORD written = 0;
  if (WriteFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &written, nullptr) == 0) {
    return GetLastError();
  }
  if (written != bytes.size()) {
    return ERROR_DISK_FULL;
  }
  return FlushFileBuffers(file) != 0 ? ERROR_SUCCESS : GetLastError();
}

bool Replace(const std::wstring& path, const std::wstring& by) {
  const win32::FileWaitLimit limit;
  return limit &&
         MoveFileExW(Exact(by).c_str(), Exact(path).c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0;
}

// Also true when it is not empty, and stays.
bool RemoveIfEmpty(const std::wstring& folder) {
  const win32::FileWaitLimit limit;
  return limit && (RemoveDirectoryW(Exact(folder).c_str()) != 0 || GetLastError() == ERROR_DIR_NOT_EMPTY);
}

}  // namespace

win32::Lock& FolderLock() noexcept { return folderLock; }

void LogHourly(int level, std::string line) {
  std::vector<Told>& told = ToldOfThisHour();
  const std::uint64_t now = win32::TickCount();
  std::erase_if(told, [now](const Told& each) { return now - each.second >= kHour; });
  if (std::none_of(told.begin(), told.end(), [&line](const Told& each) { return each.first == line; })) {
    log::Log(level, log::kKiosk, "%s", line.c_str());
    told.emplace_back(std::move(line), now);
  }
}

bool HeldFolders::Hold() {
  if (win32::TickCount() < stranger.notBefore || !Hold(kCount)) {
    return false;
  }
  stranger.told = false;
  return true;
}

bool HeldFolders::Hold(std::size_t count) {
  for (held_ = 0; held_ < count; ++held_) {
    const Folder& folder = kFolders[held_];
    // What was set aside stays until kiosk mode ends, so it happens only once.
    const bool removeOnly = folder.foreign == ForeignFolder::kRemoveOrSetAside && stranger.setAside;
    win32::FolderResult result =
        win32::SecureFolder(folder.path, folder.sddl, removeOnly ? ForeignFolder::kRemove : folder.foreign);
    stranger.setAside = stranger.setAside || result.setAside;
    stranger.notBefore = result.failedAt == FolderStep::kDisplace ? win32::TickCount() + kHour : 0;
    LogFolder(folder.path, result);
    if (!result) {
      return false;
    }
    folders_[held_] = std::move(result.folder);
  }
  return true;
}

void HeldFolders::ReleaseInnermost() noexcept {
  if (held_ > 0) {
    folders_[--held_].Reset();
  }
}

CachedFile OpenCached(const std::wstring& path) {
  CachedFile file;
  file.path = path;
  file.handle = win32::OpenAt(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE);
  if (!file.handle) {
    const DWORD error = GetLastError();
    file.state = error == ERROR_FILE_NOT_FOUND      ? State::kMissing
                 : error == ERROR_SHARING_VIOLATION ? State::kBusy
                                                    : State::kForeign;
    return file;
  }
  if (GetFileInformationByHandle(file.handle.Get(), &file.info) != 0 && IsOwnFile(file)) {
    file.state = State::kOpen;
  } else {
    file.handle.Reset();  // what is held open could not be removed
    file.state = State::kForeign;
  }
  return file;
}

std::optional<std::string> ReadCached(const CachedFile& file, std::size_t limit) {
  if (file.info.nFileSizeHigh != 0 || file.info.nFileSizeLow > limit) {
    return std::string();
  }
  std::string content(file.info.nFileSizeLow, '\0');
  DWORD read = 0;
  const bool done = ReadFile(file.handle.Get(), content.data(), file.info.nFileSizeLow, &read, nullptr) != 0;
  if (!done || read != content.size()) {
    LogWith(log::kWarn, "cannot read", file.path, done ? DWORD{ERROR_HANDLE_EOF} : GetLastError());
    return std::nullopt;
  }
  return content;
}

bool WriteCached(const std::wstring& path, std::string_view bytes) {
  const std::wstring temporary = path + L".tmp";
  if (!RemoveCached(temporary)) {
    return false;
  }
  win32::FileHandle file(
      CreateFileW(Exact(temporary).c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
  if (!file) {
    LogWith(log::kError, "cannot create", temporary, GetLastError());
    return false;
  }
  const DWORD error = WriteNew(file.Get(), bytes);
  file.Reset();
  if (error != ERROR_SUCCESS) {
    LogWith(log::kError, "cannot write", temporary, error);
  } else if (Replace(path, temporary)) {
    return true;
  } else {
    LogWith(log::kError, "cannot replace", path, GetLastError());
  }
  RemoveCached(temporary);
  return false;
}

bool RemoveCached(const std::wstring& path, const win32::Deadline& deadline) {
  if (win32::RemoveTree(path, deadline)) {
    return true;
  }
  LogWith(log::kWarn, "cannot remove", path, GetLastError());
  return false;
}

void RemoveAllBut(const std::vector<std::wstring>& names) {
  const win32::Deadline deadline(win32::kRemovalTime);
  for (const std::wstring& name : win32::NamesIn(kBrandingFolder)) {
    if (!deadline.Passed() && std::none_of(names.begin(), names.end(), [&](const std::wstring& kept) {
          return win32::EqualIgnoringCase(kept, name);
        })) {
      RemoveCached(std::wstring(kBrandingFolder) + L"\\" + name, deadline);
    }
  }
}

bool RemoveCache() {
  if (!Exists(kKioskFolder) && SetAside(state::kProductFolder, kKioskFolder).empty()) {
    return true;
  }
  HeldFolders around;
  if (!around.Hold(kAroundBranding)) {
    return false;
  }
  const win32::Deadline deadline(win32::kRemovalTime);  // for all: how many there are may be a stranger's choice
  bool removed = RemoveCached(kBrandingFolder, deadline);
  for (const auto& [outer, inner] : {std::pair{kKioskFolder, kBrandingFolder}, {state::kProductFolder, kKioskFolder}}) {
    for (const std::wstring& path : SetAside(outer, inner)) {
      removed = !deadline.Passed() && RemoveCached(path, deadline) && removed;
    }
  }
  if (!removed) {
    return false;
  }
  around.ReleaseInnermost();
  if (!RemoveIfEmpty(kKioskFolder)) {
    LogWith(log::kWarn, "cannot remove", kKioskFolder, GetLastError());
  }
  return true;
}

HANDLE DownloadEnd() noexcept {
  static const HANDLE event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  return event;
}

void RemoveBranding() {
  const win32::LockGuard guard(FolderLock());
  SetEvent(DownloadEnd());
  RemoveCache();
}

}  // namespace kiosk::branding
