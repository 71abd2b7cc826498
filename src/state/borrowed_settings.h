// Settings of the computer's that the service replaces while kiosk mode lasts. Their own values are copied into the
// state key, then a mark says whose they are, and only then is the first of them changed. With the mark, a copy that is
// missing means a value that was not there; so the mark is the first to go. Nothing here logs.
#pragma once

#include "state/state_values.h"

#include <span>

namespace kiosk::state {

struct BorrowedValue {
  const wchar_t* key;  // below HKLM
  const wchar_t* name;
  const StateValue* prior = nullptr;  // the copy; null for a value that is only set where there was none
};

struct BorrowedSettings {
  const StateValue& mark;
  std::span<const BorrowedValue> values;

  // Copies each value with its type and bytes; where there is none, an older copy goes. False at the first that cannot
  // be read, which is not the same as absent, or copied; `failed`, unless null, is told which.
  bool Save(void (*failed)(const BorrowedValue& value) = nullptr) const;

  // Writes the mark, and makes it and the copies durable.
  [[nodiscard]] bool Mark() const;

  // Deletes the mark, then the copies. False, and the copies stay, when the mark cannot be deleted.
  bool Forget() const;

  // For copies without a mark.
  void ForgetCopies() const;
};

// Makes the value what its copy says, in a key that is made where it is missing; deletes it where there is no copy.
// False when that failed, or the copy is there and cannot be read: then the value stays as it is.
bool PutBack(const BorrowedValue& value);

}  // namespace kiosk::state
