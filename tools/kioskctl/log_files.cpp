#include "log_files.h"

#include "log/day_name.h"
#include "state/folders.h"
#include "win32/folder_entries.h"
#include "win32/handle.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <string_view>

namespace kioskctl {
namespace {

using kiosk::win32::FolderEntry;

constexpr std::size_t kMostOfOneFile = std::size_t{20} * 1024 * 1024;
constexpr std::size_t kStamp = 14;  // "[12:34:56.789]"

using Lines = std::vector<std::string>;

std::vector<FolderEntry> LogsIn(const std::wstring& folder, const wchar_t* pattern) {
  std::vector<FolderEntry> logs = kiosk::win32::EntriesOf(folder, pattern);
  // The pattern also finds "x.log-old", by its short name.
  std::erase_if(logs, [](const FolderEntry& each) {
    return !kiosk::win32::IsPlainFile(each.attributes) || !each.path.ends_with(L".log");
  });
  return logs;
}

// The folders of days, oldest first.
std::vector<FolderEntry> Days() {
  std::vector<FolderEntry> days = kiosk::win32::EntriesOf(kiosk::state::kLogRoot);
  std::erase_if(days, [](const FolderEntry& each) {
    return !kiosk::win32::IsPlainFolder(each.attributes) || !kiosk::log::IsDayName(each.Name());
  });
  std::ranges::sort(days, std::less(), &FolderEntry::path);
  return days;
}

// In the order of their times, and those of one file in their own: a clock that was set back changes nothing in it.
std::string Merged(std::vector<Lines> files) {
  std::string text;
  std::vector<std::size_t> next(files.size(), 0);
  while (true) {
    const std::string* earliest = nullptr;
    std::size_t from = 0;
    for (std::size_t i = 0; i < files.size(); ++i) {
      if (next[i] < files[i].size()) {
        const std::string& line = files[i][next[i]];
        if (earliest == nullptr || line.compare(0, kStamp, *earliest, 0, kStamp) < 0) {
          earliest = &line;
          from = i;
        }
      }
    }
    if (earliest == nullptr) {
      return text;
    }
    text += *earliest;
    ++next[from];
  }
}

}  // namespace

std::vector<std::wstring> NewestLogs(std::uint64_t budget) {
  std::vector<FolderEntry> logs = LogsIn(kiosk::state::kLogRoot, L"*.log");
  for (const FolderEntry& each : kiosk::win32::EntriesOf(kiosk::state::kLogRoot)) {
    if (kiosk::win32::IsPlainFolder(each.attributes)) {
      std::ranges::move(LogsIn(each.path, L"*.log"), std::back_inserter(logs));
    }
  }
  std::ranges::sort(logs, std::greater(), &FolderEntry::lastWrite);
  std::vector<std::wstring> paths;
  std::uint64_t total = 0;
  for (const FolderEntry& log : logs) {
    total += log.size;
    if (!paths.empty() && total > budget) {
      break;
    }
    paths.push_back(log.path);
  }
  return paths;
}

bool ReadLog(const std::wstring& path, std::uint64_t& offset, std::size_t limit, std::string& text) {
  constexpr DWORD kAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  const kiosk::win32::FileHandle file(
      CreateFileW(path.c_str(), GENERIC_READ, kAll, nullptr, OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  LARGE_INTEGER size{};
  if (!file || GetFileSizeEx(file.Get(), &size) == 0) {
    return false;
  }
  const auto end = static_cast<std::uint64_t>(size.QuadPart);
  const std::uint64_t wanted = std::min<std::uint64_t>(end - std::min(offset, end), limit);
  const bool cut = end - wanted > offset;
  const LARGE_INTEGER from{.QuadPart = static_cast<LONGLONG>(end - wanted)};
  std::string piece(static_cast<std::size_t>(wanted), '\0');
  DWORD read = 0;
  if (SetFilePointerEx(file.Get(), from, nullptr, FILE_BEGIN) == 0 ||
      ReadFile(file.Get(), piece.data(), static_cast<DWORD>(wanted), &read, nullptr) == 0) {
    return false;
  }
  piece.resize(read);
  offset = end - wanted + read;
  text.append(piece, cut ? piece.find('\n') + 1 : 0);
  return true;
}

std::vector<std::string> LogReader::LinesOf(const std::wstring& path) {
  File& file = files_[path];
  static_cast<void>(ReadLog(path, file.offset, kMostOfOneFile, file.begun));
  Lines lines;
  std::size_t begin = 0;
  for (std::size_t end = file.begun.find('\n'); end != std::string::npos; end = file.begun.find('\n', begin)) {
    lines.push_back(file.begun.substr(begin, end + 1 - begin));
    begin = end + 1;
  }
  file.begun.erase(0, begin);
  return lines;
}

std::string LogReader::NewLines() {
  constexpr wchar_t kOfTheService[] = L"Kiosk_*.log";
  const std::vector<FolderEntry> days = Days();
  if (firstDay_.empty()) {
    const auto newest = std::find_if(days.rbegin(), days.rend(),
                                     [&](const FolderEntry& day) { return !LogsIn(day.path, kOfTheService).empty(); });
    firstDay_ = newest != days.rend() ? newest->path : L"";
  }
  std::string text;
  for (const FolderEntry& day : days) {
    if (firstDay_.empty() || day.path < firstDay_) {
      continue;
    }
    std::vector<FolderEntry> logs = LogsIn(day.path, kOfTheService);
    std::ranges::sort(logs, std::less(), &FolderEntry::path);
    std::vector<Lines> lines;
    std::ranges::transform(logs, std::back_inserter(lines),
                           [this](const FolderEntry& log) { return LinesOf(log.path); });
    text += Merged(std::move(lines));
  }
  return text;
}

}  // namespace kioskctl
