// The log tree's spool, as tests look at it.
#pragma once

#include "log/shipper/spool.h"
#include "state/folders.h"
#include "tests/support/fixture.h"

#include <algorithm>

namespace kiosk::log::shipper {

inline const std::wstring kRoot = state::kLogRoot;
inline const std::wstring kDrop = kRoot + L"\\Drop";

inline std::vector<std::wstring> Segments(const std::wstring& folder = kDrop) {
  std::vector<std::wstring> names = test::ListFolder(folder);
  names.erase(std::remove(names.begin(), names.end(), L"Taken"), names.end());
  return names;
}

inline void MakeDropTree() {
  std::wstring path = L"C:\\ProgramData";
  for (const wchar_t* part : {L"\\Norvane", L"\\Tessaly", L"\\Logs", L"\\Drop", L"\\Taken"}) {
    CreateDirectoryW((path += part).c_str(), nullptr);
  }
}

}  // namespace kiosk::log::shipper
