// The Kiosk state key: all persistent state of the service, readable by SYSTEM and Administrators alone. Values are
// read where they are needed; nothing is cached.
#pragma once

#include "state/registry.h"
#include "state/state_values.h"

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

// The text of a string value; empty when absent.
std::wstring ReadStateString(const StateValue& value);

// True only for a REG_DWORD that reads exactly 1.
bool FlagIsOn(const StateValue& value);

// Present, of type REG_BINARY and not empty. The content is not looked at.
bool TokenIsStored();

// These open the key and never create it, so that nothing brings it back, unprotected, after an uninstall. True when
// the value was written. Reading back what was just written is the caller's to decide.
bool WriteStateString(const StateValue& value, std::wstring_view text);
bool WriteStateDword(const StateValue& value, DWORD number);
bool WriteStateQword(const StateValue& value, std::uint64_t number);

// Makes the REG_SZ value read `text`; an empty text deletes it. False, and nothing is written, when it reads exactly so
// already (a missing value reads empty). Otherwise true, also when the registry refused: the caller says that it
// changed.
bool SetStateStringIfChanged(const StateValue& value, std::wstring_view text);

// Deleting what is absent is success.
bool DeleteStateValue(const StateValue& value);

// Makes the key's content durable. The registry writes lazily: without this a power cut undoes the last seconds.
bool FlushStateKey();

// Shows `text` (UTF-8) as the terminal's error until something clears it; an empty text clears it. Failures are
// ignored.
void RecordLastError(std::string_view text);

// The folder in which the client program is installed, without trailing slashes; empty when the installer left none.
std::wstring ClientInstallFolder();

}  // namespace kiosk::state
