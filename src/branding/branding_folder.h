// The folder in which the kiosk shell finds the branding, and the only way to its files. Users may read it; only SYSTEM
// and Administrators may write, and nothing that somebody else put there is trusted or followed.
#pragma once

#include "state/folders.h"
#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/lock.h"
#include "win32/secure_folder.h"

#include <array>
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::branding {

using state::kBrandingFolder;
using state::kKioskFolder;

// Guards the folder and its content; held for work on files, never across a call to the portal.
win32::Lock& FolderLock() noexcept;

// The four folders from C:\ProgramData\Norvane down to the branding's, made, secured and held open so that nobody can
// swap one of them. The inner two are made anew when they are a stranger's. The caller holds the lock for the life of
// this.
class HeldFolders {
 public:
  // All of them, outermost first. False when one cannot be had; logged. A stranger's folder that Windows will neither
  // remove nor rename is logged once, and looked at again after an hour.
  bool Hold() REQUIRES(FolderLock());
  // The outer `count` of them, at any time.
  bool Hold(std::size_t count) REQUIRES(FolderLock());
  void ReleaseInnermost() noexcept;

 private:
  static constexpr std::size_t kCount = 4;
  std::array<win32::FileHandle, kCount> folders_;
  std::size_t held_ = 0;
};

// Logs a trouble with a file or folder; the same line once an hour, since there is a run every 30 s.
void LogHourly(int level, std::string line) REQUIRES(FolderLock());

// All below but RemoveBranding want the lock held, and all but RemoveCache and RemoveBranding the folders too.

struct CachedFile {
  enum class State {
    kMissing,
    kForeign,  // not a plain file with one name that belongs to this service
    kBusy,     // somebody keeps it open for himself alone, or holds a lock on it
    kOpen,
  };
  State state = State::kMissing;
  std::wstring path;
  win32::FileHandle handle;  // only for kOpen
  BY_HANDLE_FILE_INFORMATION info{};
};
CachedFile OpenCached(const std::wstring& path) REQUIRES(FolderLock());

// The content of an open file; an empty text when it is longer than `limit` bytes. Empty optional, and logged, when it
// cannot be read.
std::optional<std::string> ReadCached(const CachedFile& file, std::size_t limit) REQUIRES(FolderLock());

// Puts a file there whole or not at all, in place of whatever stood there. False when that failed; logged.
bool WriteCached(const std::wstring& path, std::string_view bytes) REQUIRES(FolderLock());

// Removes what stands at the path, whatever it is, and begins nothing more after the deadline. False when something is
// left; logged.
bool RemoveCached(const std::wstring& path, const win32::Deadline& deadline = win32::Deadline(win32::kRemovalTime))
    REQUIRES(FolderLock());

// Removes everything in the folder but files of these names.
void RemoveAllBut(const std::vector<std::wstring>& names) REQUIRES(FolderLock());

// Removes the folder with all that is in it, what was set aside, and the folder around it when that is empty then.
// False when something of the cache is left; logged.
bool RemoveCache() REQUIRES(FolderLock());

// The event that ends a download. RemoveBranding sets it; whoever finds the terminal enrolled and begins a download
// resets it, under the lock. Null when Windows has no event to give.
HANDLE DownloadEnd() noexcept;

// RemoveCache under the lock, for the end of an enrolment. The caller may hold the account lock.
void RemoveBranding();

}  // namespace kiosk::branding
