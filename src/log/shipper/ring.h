// Log lines between the threads that write them and the one that ships them: a ring of fixed size, under a leaf lock
// that is held for a copy. All state is in ring.cpp.
#pragma once

#include "win32/winapi.h"

#include <array>
#include <cstdint>
#include <string_view>

namespace kiosk::log::shipper {

struct Slot {
  std::uint64_t time;  // FILETIME
  std::uint64_t seq;
  int level;
  std::uint16_t length;
  std::array<char, 64> component;
  std::array<char, 2048> message;
};

// Makes the ring; `wake` (auto reset) is set when a line comes into the empty ring, and again when it is half full.
// False when there is no memory. Before any other call of this file.
bool MakeRing(HANDLE wake) noexcept;

// Lines graver than or as grave as `level` are taken; -1: none.
void AcceptUpTo(int level) noexcept;

// See HandOff of shipper.h.
void Push(int level, const char* component, std::string_view message) noexcept;

// Moves the oldest line into `slot`; false when there is none. `dropped` gets the number of lines that were lost to the
// full ring since the last line was popped.
bool Pop(Slot& slot, std::uint64_t& dropped) noexcept;

}  // namespace kiosk::log::shipper
