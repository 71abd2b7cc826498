// The Kiosk state key: all persistent state of the service, readable by SYSTEM and Administrators alone. Values are
// read where they are needed; nothing is cached.
#pragma once

#include "state/registry.h"
#include "state/state_values.h"

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>

namespace kiosk::state {

// Creates the key if it is missing and puts its protected DACL on it: full control for SYSTEM and Administrators,
// inherited by subkeys, nobody else. `what` names the step that failed (as the log line wants it), null on success.
struct ProtectResult {
  const char* what = nullptr;
  DWORD error = ERROR_SUCCESS;
};
ProtectResult ProtectStateKey();

// A value of the key, whatever its type; empty when it is absent or cannot be read.
std::optional<RawValue> ReadState(const StateValue& value);

// The same for whom that makes a difference. ERROR_FILE_NOT_FOUND when the key or the value is missing; anything else
// but success means that nobody knows what stands there.
LSTATUS ReadState(const StateValue& value, RawValue& raw);

// Whether it is known what stands there: the value was read, or there is none, and `raw` is empty.
bool ReadKnownState(const StateValue& value, RawValue& raw);

// Whether every read of the key since this was made, on whichever thread, told what stands there. For work in many
// steps whose readers take what they cannot read for none: unless all was known, nothing that is still needed may be
// deleted.
class ReadWatch {
 public:
  ReadWatch() noexcept;
  [[nodiscard]] bool AllKnown() const noexcept;

 private:
  unsigned before_;
};

// For whom absence, or another type, means the same as an empty text or 0.
std::wstring ReadStateString(const StateValue& value);
DWORD ReadStateDword(const StateValue& value);
std::uint64_t ReadStateQword(const StateValue& value);

// True only for a REG_DWORD that reads exactly 1.
bool FlagIsOn(const StateValue& value);

// Present, of type REG_BINARY and not empty. The content is not looked at.
bool TokenIsStored();

// These open the key and never create it, so that nothing brings it back, unprotected, after an uninstall. True when
// the value was written. Reading back what was just written is the caller's to decide.
bool WriteStateString(const StateValue& value, std::wstring_view text);
bool WriteStateDword(const StateValue& value, DWORD number);
bool WriteStateQword(const StateValue& value, std::uint64_t number);

// The same for content that comes with a type of its own. ERROR_FILE_NOT_FOUND when the key is missing.
LSTATUS WriteState(const StateValue& value, const RawValue& content);
LSTATUS WriteState(const StateValue& value, DWORD type, const void* data, DWORD size);

// Makes the REG_SZ value read `text`; an empty text deletes it. False, and nothing is written, when it reads exactly so
// already (a missing value reads empty). Otherwise true, also when the registry refused: the caller says that it
// changed.
bool SetStateStringIfChanged(const StateValue& value, std::wstring_view text);

// Deleting what is absent is success.
bool DeleteStateValue(const StateValue& value);
void DeleteStateValues(std::initializer_list<StateValue> values);  // in this order; a failure does not end it

// Makes the key's content durable. The registry writes lazily: without this a power cut undoes the last seconds.
bool FlushStateKey();

// Shows `text` (UTF-8) as the terminal's error until something clears it; an empty text clears it. Failures are
// ignored.
void RecordLastError(std::string_view text);

}  // namespace kiosk::state
