#include "state/borrowed_settings.h"

#include "state/kiosk_state.h"

namespace kiosk::state {
namespace {

// One of these values may be a password in clear text.
struct WipedValue : RawValue {
  WipedValue() = default;
  WipedValue(const WipedValue&) = delete;
  WipedValue& operator=(const WipedValue&) = delete;
  ~WipedValue() {
    if (!bytes.empty()) {
      SecureZeroMemory(bytes.data(), bytes.size());
    }
  }
};

bool Copy(const BorrowedValue& value) {
  WipedValue current;
  const LSTATUS status = ReadValue(value.key, value.name, current);
  return status == ERROR_FILE_NOT_FOUND ? DeleteStateValue(*value.prior)
                                        : status == ERROR_SUCCESS && WriteState(*value.prior, current) == ERROR_SUCCESS;
}

}  // namespace

bool BorrowedSettings::Save(void (*failed)(const BorrowedValue& value)) const {
  for (const BorrowedValue& value : values) {
    if (!Copy(value)) {
      if (failed != nullptr) {
        failed(value);
      }
      return false;
    }
  }
  return true;
}

bool BorrowedSettings::Mark() const { return WriteStateDword(mark, 1) && FlushStateKey(); }

bool BorrowedSettings::Forget() const {
  const bool unmarked = DeleteStateValue(mark);
  if (unmarked) {
    ForgetCopies();
  }
  return unmarked;
}

void BorrowedSettings::ForgetCopies() const {
  for (const BorrowedValue& value : values) {
    if (value.prior != nullptr) {
      DeleteStateValue(*value.prior);
    }
  }
}

bool PutBack(const BorrowedValue& value) {
  WipedValue copy;
  const LSTATUS status = value.prior != nullptr ? ReadState(*value.prior, copy) : ERROR_FILE_NOT_FOUND;
  if (status == ERROR_FILE_NOT_FOUND) {
    const LSTATUS deleted = RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, value.key, value.name);
    return deleted == ERROR_SUCCESS || deleted == ERROR_FILE_NOT_FOUND;
  }
  return status == ERROR_SUCCESS && WriteValue(value.key, value.name, copy);
}

}  // namespace kiosk::state
