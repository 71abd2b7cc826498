#include "log/shipper/refused.h"

#include "log/local_log.h"
#include "win32/clock.h"
#include "win32/handle.h"

#include <cstdio>

namespace kiosk::log::shipper {
namespace {

constexpr LONGLONG kMostPerDay = LONGLONG{1024} * 1024;
constexpr std::uint64_t kHour = 3'600'000;

}  // namespace

void Refused::Keep(std::string_view record) {
  SYSTEMTIME now;
  GetLocalTime(&now);
  wchar_t name[32];
  static_cast<void>(
      std::swprintf(name, std::size(name), L"\\Refused_%04d%02d%02d.log", now.wYear, now.wMonth, now.wDay));
  // For appending alone, which lets several processes write to it; a link is not followed.
  const win32::FileHandle file(CreateFileW((folder_ + name).c_str(), FILE_APPEND_DATA | FILE_READ_ATTRIBUTES,
                                           FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS,
                                           FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  LARGE_INTEGER size{};
  if (file && GetFileSizeEx(file.Get(), &size) != 0 && size.QuadPart < kMostPerDay) {
    const std::string line = (torn_ ? "\n" : "") + std::string(record) + '\n';
    DWORD written = 0;
    torn_ = WriteFile(file.Get(), line.data(), static_cast<DWORD>(line.size()), &written, nullptr) == 0 ||
            written != line.size();
  }
}

void Refused::SetAside(std::string_view record, const std::string& reason) {
  if (!folder_.empty()) {
    Keep(record);
  }
  ++count_;
  if (const std::uint64_t now = win32::TickCount(); now >= sayAgain_) {
    LogLocal(kWarn, "central log: the endpoint refused %llu records (the last with %s); see Archive\\Refused_*.log",
             static_cast<unsigned long long>(std::exchange(count_, 0)), reason.c_str());
    sayAgain_ = now + kHour;
  }
}

}  // namespace kiosk::log::shipper
