// Records that could not be sent yet, on the disk: segments of at most 256 KiB and a bit, one record a line.
//
//   <folder>\*.gelf         whole segments, anybody's to send (also those that another program left there)
//   <folder>\Taken\*.gelf   the segment that is being written, and those being sent, of all processes
//
// A segment changes hands by being renamed. Who writes or sends one keeps it open without sharing its deletion, so
// nobody else can rename it; a file in Taken that can be renamed belongs to a process that died, and goes back to the
// folder.
#pragma once

#include "log/shipper/segment_records.h"
#include "win32/folder_entries.h"
#include "win32/handle.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kiosk::log::shipper {

inline constexpr std::size_t kSegmentSize = std::size_t{256} * 1024;

// A claimed segment. Without Delete or Return it stays claimed until the process ends.
class Segment {
 public:
  Segment(win32::FileHandle file, std::wstring path) : file_(std::move(file)), path_(std::move(path)) {}

  // The next whole record (SegmentRecords); false at the end, and where the file cannot be read: the next call tries
  // from there again.
  bool Next(std::string& record);

  // Whether that was why the last Next was false.
  [[nodiscard]] DWORD ReadError() const noexcept { return readError_; }

  // Deletes the file. On failure it stays claimed, so that nobody sends it again, and may be tried once more.
  bool Delete() noexcept;

  // Gives the file up for others, into `folder`.
  void Return(const std::wstring& folder);

 private:
  win32::FileHandle file_;
  std::wstring path_;
  SegmentRecords records_;
  DWORD readError_ = ERROR_SUCCESS;
};

// One thread's view of the spool; several, also of several processes, may be at work in the same folder.
class Spool {
 public:
  // `folder` exists with its sub-folder "Taken", both private. `cap`: bytes of all segments together.
  Spool(std::wstring folder, std::uint64_t cap) : folder_(std::move(folder)), cap_(cap) {}

  // Writes whole lines (each with its line end) to the open segment. False when the disk has less than 500 MB free or
  // refuses; the lines are then the caller's still. When the cap is reached the oldest segments go.
  bool Append(std::string_view lines);

  // Gives the open segment to the folder. On failure it stays in Taken and is found there later.
  void CloseSegment();

  // The oldest segment of the folder; the open one is closed when there is no other. Empty when there is none.
  std::optional<Segment> Claim();

  // Brings segments of dead processes back. Cheap when there are none.
  void ReturnDeadClaims();

  // Whether there are whole segments.
  [[nodiscard]] bool HasSegments() const { return !List(folder_).empty(); }

  // Lines in segments that went for the cap since this was asked last.
  std::uint64_t TakeLost() noexcept { return std::exchange(lost_, 0); }

  [[nodiscard]] const std::wstring& Folder() const noexcept { return folder_; }

 private:
  // The segments, the oldest first.
  [[nodiscard]] static std::vector<win32::FolderEntry> List(const std::wstring& folder);
  [[nodiscard]] std::wstring Taken() const { return folder_ + L"\\Taken"; }
  [[nodiscard]] std::wstring NewTakenPath() const;
  [[nodiscard]] bool DiskHasRoom() const noexcept;
  bool OpenSegment();
  void MakeRoom();
  std::optional<Segment> ClaimOldest();

  std::wstring folder_;
  std::uint64_t cap_;
  win32::FileHandle open_;
  std::wstring openPath_;
  std::size_t openSize_ = 0;
  std::uint64_t lost_ = 0;
};

}  // namespace kiosk::log::shipper
