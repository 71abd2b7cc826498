// The look through a large log folder that keeps it under its cap, against a bare walk through the same files.
//
//   prune_bench COUNT    of files, in folders of 1,000
#include "bench/bench.h"
#include "log/housekeeping.h"
#include "state/folders.h"
#include "win32/handle.h"

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr int kFilesPerDay = 1000;

std::wstring Day(int number) {
  wchar_t name[16];
  static_cast<void>(std::swprintf(name, std::size(name), L"20%02d-%02d-%02d", 10 + number / 336, 1 + number / 28 % 12,
                                  1 + number % 28));
  return std::wstring(kiosk::state::kLogRoot) + L"\\" + name;
}

void Fill(int count) {
  CreateDirectoryW(L"C:\\ProgramData\\Norvane", nullptr);
  CreateDirectoryW(L"C:\\ProgramData\\Norvane\\Tessaly", nullptr);
  CreateDirectoryW(kiosk::state::kLogRoot, nullptr);
  for (int i = 0; i < count; ++i) {
    const std::wstring day = Day(i / kFilesPerDay);
    if (i % kFilesPerDay == 0) {
      CreateDirectoryW(day.c_str(), nullptr);
    }
    const kiosk::win32::FileHandle file(CreateFileW((day + L"\\Kiosk_" + std::to_wstring(i) + L".log").c_str(),
                                                    GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr));
    if (!file) {
      (void)std::printf("cannot make file %d (%lu)\n", i, GetLastError());
      std::exit(1);
    }
  }
}

// All that has to be known of each file: its size and its age.
std::uint64_t Walk(const std::wstring& folder) {
  WIN32_FIND_DATAW found;
  std::uint64_t files = 0;
  const kiosk::win32::FindHandle search(FindFirstFileExW((folder + L"\\*").c_str(), FindExInfoBasic, &found,
                                                         FindExSearchNameMatch, nullptr, FIND_FIRST_EX_LARGE_FETCH));
  if (!search) {
    return 0;
  }
  do {
    if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0) {
      ++files;
    } else if (found.cFileName[0] != L'.') {
      files += Walk(folder + L"\\" + found.cFileName);
    }
  } while (FindNextFileW(search.Get(), &found) != 0);
  return files;
}

}  // namespace

int main(int argumentCount, char** arguments) {
  const int count = argumentCount > 1 ? std::atoi(arguments[1]) : 0;
  Fill(count);
  const auto times = kiosk::bench::Measure(3, 1,
                                           {[] { kiosk::log::Prune(); },
                                            [count] {
                                              if (Walk(kiosk::state::kLogRoot) != static_cast<std::uint64_t>(count)) {
                                                std::puts("files are missing");
                                                std::exit(1);
                                              }
                                            }});
  kiosk::bench::Row("prune of " + std::to_string(count) + " files", times[0], {"bare walk", times[1]},
                    kiosk::bench::TimesWorse(1.5));
  return 0;
}
