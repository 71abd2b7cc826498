// How many handles a process has open, from the list of all handles: to GetProcessHandleCount Wine answers 0.
#pragma once

#include "win32/winapi.h"

#include <winternl.h>

#include <algorithm>
#include <cstddef>
#include <vector>

namespace kiosk::test {

inline std::ptrdiff_t HandlesOf(DWORD processId) {
  std::vector<std::byte> list(std::size_t{64} * 1024);
  while (!NT_SUCCESS(NtQuerySystemInformation(SystemHandleInformation, list.data(), static_cast<ULONG>(list.size()),
                                              nullptr)) &&
         list.size() < std::size_t{64} * 1024 * 1024) {
    list.resize(list.size() * 2);
  }
  const auto* all = reinterpret_cast<const SYSTEM_HANDLE_INFORMATION*>(list.data());
  return std::count_if(all->Handle, all->Handle + all->Count,
                       [processId](const SYSTEM_HANDLE_ENTRY& each) { return each.OwnerPid == processId; });
}

}  // namespace kiosk::test
