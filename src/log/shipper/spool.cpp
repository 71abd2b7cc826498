#include "log/shipper/spool.h"

#include "win32/clock.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <tuple>

namespace kiosk::log::shipper {
namespace {

using win32::FolderEntry;

constexpr std::uint64_t kLeastFree = std::uint64_t{500} * 1024 * 1024;
constexpr std::size_t kChunk = std::size_t{64} * 1024;

// Makes names of segments differ within one tick of the clock, whichever thread makes them.
std::atomic<unsigned> lastNumber{0};

// Under the same name.
void MoveInto(const std::wstring& folder, const std::wstring& path) {
  MoveFileExW(path.c_str(), (folder + path.substr(path.find_last_of(L'\\'))).c_str(), 0);
}

// Others may claim or delete the segment meanwhile; a link is not followed.
std::uint64_t CountLines(const std::wstring& path) {
  const win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                           OPEN_EXISTING, FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  std::vector<char> chunk(kChunk);
  std::uint64_t lines = 0;
  for (DWORD read = 0; file &&
                       ReadFile(file.Get(), chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr) != 0 &&
                       read != 0;) {
    lines += static_cast<std::uint64_t>(std::count(chunk.begin(), chunk.begin() + read, '\n'));
  }
  return lines;
}

}  // namespace

bool Segment::Next(std::string& record) {
  while (!records_.Next(record)) {
    std::string chunk(kChunk, '\0');
    DWORD read = 0;
    const bool done = ReadFile(file_.Get(), chunk.data(), static_cast<DWORD>(chunk.size()), &read, nullptr) != 0;
    readError_ = done ? DWORD{ERROR_SUCCESS} : GetLastError();
    if (!done || read == 0) {
      return false;
    }
    records_.Add({chunk.data(), read});
  }
  return true;
}

bool Segment::Delete() noexcept {
  FILE_DISPOSITION_INFO disposition{TRUE};
  if (file_ && SetFileInformationByHandle(file_.Get(), FileDispositionInfo, &disposition, sizeof(disposition)) == 0) {
    return false;
  }
  file_.Reset();
  return true;
}

void Segment::Return(const std::wstring& folder) {
  file_.Reset();
  MoveInto(folder, path_);
}

std::vector<FolderEntry> Spool::List(const std::wstring& folder) {
  std::vector<FolderEntry> entries = win32::EntriesOf(folder, L"*.gelf");
  std::erase_if(entries, [](const FolderEntry& each) { return !win32::IsPlainFile(each.attributes); });
  std::sort(entries.begin(), entries.end(), [](const FolderEntry& left, const FolderEntry& right) {
    return std::tie(left.lastWrite, left.path) < std::tie(right.lastWrite, right.path);
  });
  return entries;
}

std::wstring Spool::NewTakenPath() const {
  wchar_t name[64];
  static_cast<void>(std::swprintf(name, std::size(name), L"\\%016llx-%lx-%x.gelf",
                                  static_cast<unsigned long long>(win32::FileTimeNow()), GetCurrentProcessId(),
                                  ++lastNumber));
  return Taken() + name;
}

bool Spool::DiskHasRoom() const noexcept {
  ULARGE_INTEGER free{};
  return GetDiskFreeSpaceExW(folder_.c_str(), &free, nullptr, nullptr) != 0 && free.QuadPart >= kLeastFree;
}

void Spool::MakeRoom() {
  const std::vector<FolderEntry> entries = List(folder_);
  std::uint64_t total = kSegmentSize;
  for (const FolderEntry& entry : entries) {
    total += entry.size;
  }
  for (const FolderEntry& entry : List(Taken())) {
    total += entry.size;
  }
  for (auto oldest = entries.begin(); oldest != entries.end() && total > cap_; ++oldest) {
    const std::uint64_t lines = CountLines(oldest->path);
    if (DeleteFileW(oldest->path.c_str()) != 0) {
      total -= std::min(total, oldest->size);
      lost_ += lines;
    }
  }
}

bool Spool::OpenSegment() {
  MakeRoom();
  openPath_ = NewTakenPath();
  openSize_ = 0;
  open_.Reset(CreateFileW(openPath_.c_str(), GENERIC_WRITE | DELETE, FILE_SHARE_READ, nullptr, CREATE_NEW,
                          FILE_ATTRIBUTE_NORMAL, nullptr));
  return static_cast<bool>(open_);
}

bool Spool::Append(std::string_view lines) {
  if (!DiskHasRoom() || (!open_ && !OpenSegment())) {
    return false;
  }
  DWORD written = 0;
  if (WriteFile(open_.Get(), lines.data(), static_cast<DWORD>(lines.size()), &written, nullptr) == 0 ||
      written != lines.size()) {
    // What came onto the disk may end in the middle of a line; nothing may follow it.
    CloseSegment();
    return false;
  }
  openSize_ += lines.size();
  if (openSize_ >= kSegmentSize) {
    CloseSegment();
  }
  return true;
}

void Spool::CloseSegment() {
  if (!open_) {
    return;
  }
  // One that took no line is nothing to send; what came of the first onto the disk is the caller's still.
  if (FILE_DISPOSITION_INFO disposition{TRUE};
      openSize_ == 0 &&
      SetFileInformationByHandle(open_.Get(), FileDispositionInfo, &disposition, sizeof(disposition)) != 0) {
    open_.Reset();
    return;
  }
  FlushFileBuffers(open_.Get());
  open_.Reset();
  MoveInto(folder_, openPath_);
}

// The file is renamed first and opened then. Should another process take it for a dead one's in between, it is back in
// the folder, and the opening fails.
std::optional<Segment> Spool::ClaimOldest() {
  for (const FolderEntry& entry : List(folder_)) {
    const std::wstring path = NewTakenPath();
    if (MoveFileExW(entry.path.c_str(), path.c_str(), 0) == 0) {
      continue;  // somebody else was faster, or has it open
    }
    win32::FileHandle file(CreateFileW(path.c_str(), GENERIC_READ | DELETE, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                       FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
    if (file) {
      return Segment(std::move(file), path);
    }
  }
  return std::nullopt;
}

std::optional<Segment> Spool::Claim() {
  std::optional<Segment> segment = ClaimOldest();
  if (!segment && open_) {
    CloseSegment();
    segment = ClaimOldest();
  }
  return segment;
}

void Spool::ReturnDeadClaims() {
  for (const FolderEntry& entry : List(Taken())) {
    MoveInto(folder_, entry.path);  // fails while its owner lives, who shares no deletion
  }
}

}  // namespace kiosk::log::shipper
