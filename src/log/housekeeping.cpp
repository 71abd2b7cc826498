#include "log/housekeeping.h"

#include "log/day_files.h"
#include "log/settings.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::log {
namespace {

constexpr std::uint64_t kArchiveLife = std::uint64_t{30} * 24 * 3600 * win32::kFileTimeSecond;
constexpr std::uint32_t kDefaultCapMegabytes = 5120;
constexpr const wchar_t* kFlatPatterns[] = {L"*.log", L"*.dmp"};

struct LogFile {
  std::wstring path;
  std::uint64_t size;
  std::uint64_t lastWrite;
};

bool IsPlainFile(const WIN32_FIND_DATAW& data) noexcept {
  return (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == 0;
}

bool IsPlainFolder(const WIN32_FIND_DATAW& data) noexcept {
  return (data.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) ==
         FILE_ATTRIBUTE_DIRECTORY;
}

template <typename Visit>
void ForEach(const std::wstring& folder, const wchar_t* pattern, Visit visit) {
  WIN32_FIND_DATAW data;
  const win32::FindHandle find(FindFirstFileW((folder + L"\\" + pattern).c_str(), &data));
  if (!find) {
    return;
  }
  do {
    visit(data);
  } while (FindNextFileW(find.Get(), &data) != 0);
}

std::wstring ArchiveFolder() { return state::kLogArchive; }

bool ArchiveIsPlain() {
  const DWORD attributes = GetFileAttributesW(ArchiveFolder().c_str());
  return attributes != INVALID_FILE_ATTRIBUTES &&
         (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT)) == FILE_ATTRIBUTE_DIRECTORY;
}

// "YYYY-MM-DD", digits and dashes only.
bool IsDayName(std::wstring_view name) noexcept {
  if (name.size() != 10) {
    return false;
  }
  for (std::size_t i = 0; i < name.size(); ++i) {
    const bool dash = i == 4 || i == 7;
    if (dash ? name[i] != L'-' : (name[i] < L'0' || name[i] > L'9')) {
      return false;
    }
  }
  return true;
}

std::vector<std::wstring> DayFolderNames() {
  std::vector<std::wstring> names;
  ForEach(kLogRoot, L"*", [&](const WIN32_FIND_DATAW& data) {
    if (IsPlainFolder(data) && IsDayName(data.cFileName)) {
      names.emplace_back(data.cFileName);
    }
  });
  return names;
}

void Collect(const std::wstring& folder, const wchar_t* pattern, std::vector<LogFile>& files) {
  ForEach(folder, pattern, [&](const WIN32_FIND_DATAW& data) {
    if (IsPlainFile(data)) {
      files.push_back({folder + L"\\" + data.cFileName,
                       (static_cast<std::uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow,
                       win32::FileTimeValue(data.ftLastWriteTime)});
    }
  });
}

// By handle, without following links. A file that somebody has open stays.
bool DeleteClosedFile(const std::wstring& path) {
  const win32::FileHandle file(
      CreateFileW(path.c_str(), DELETE, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  FILE_DISPOSITION_INFO disposition{TRUE};
  return file && SetFileInformationByHandle(file.Get(), FileDispositionInfo, &disposition, sizeof(disposition)) != 0;
}

void DeleteOldest(std::vector<LogFile>& files, std::uint64_t cap) {
  std::uint64_t total = 0;
  for (const LogFile& file : files) {
    total += file.size;
  }
  if (total <= cap) {
    return;
  }
  std::stable_sort(files.begin(), files.end(),
                   [](const LogFile& left, const LogFile& right) { return left.lastWrite < right.lastWrite; });
  for (const LogFile& file : files) {
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
  std::vector<LogFile> files;
  files.reserve(256);
  for (const wchar_t* pattern : kFlatPatterns) {
    Collect(kLogRoot, pattern, files);
  }
  if (ArchiveIsPlain()) {
    Collect(ArchiveFolder(), L"*.*", files);
  }
  const std::vector<std::wstring> days = DayFolderNames();
  for (const std::wstring& day : days) {
    Collect(std::wstring(kLogRoot) + L"\\" + day, L"*.*", files);
  }
  DeleteOldest(files, cap);

  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t today[16];
  static_cast<void>(std::swprintf(today, std::size(today), L"%04d-%02d-%02d", now.wYear, now.wMonth, now.wDay));
  for (const std::wstring& day : days) {
    if (day != today) {
      RemoveDirectoryW((std::wstring(kLogRoot) + L"\\" + day).c_str());  // only an empty one goes
    }
  }
}

}  // namespace

void ArchiveOldFiles(const SYSTEMTIME& today) {
  wchar_t date[16];
  static_cast<void>(std::swprintf(date, std::size(date), L"%04d%02d%02d", today.wYear, today.wMonth, today.wDay));
  for (const wchar_t* pattern : kFlatPatterns) {
    ForEach(kLogRoot, pattern, [&](const WIN32_FIND_DATAW& data) {
      const std::wstring name = data.cFileName;
      if (IsPlainFile(data) && name.find(date) == std::wstring::npos) {
        MoveFileW((std::wstring(kLogRoot) + L"\\" + name).c_str(), (ArchiveFolder() + L"\\" + name).c_str());
      }
    });
  }
  if (!ArchiveIsPlain()) {
    return;
  }
  const std::uint64_t now = win32::FileTimeNow();
  for (const wchar_t* pattern : kFlatPatterns) {
    ForEach(ArchiveFolder(), pattern, [&](const WIN32_FIND_DATAW& data) {
      if (IsPlainFile(data) && win32::FileTimeValue(data.ftLastWriteTime) + kArchiveLife < now) {
        DeleteFileW((ArchiveFolder() + L"\\" + data.cFileName).c_str());
      }
    });
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
