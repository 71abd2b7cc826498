// The kiosk's local Windows account: whose it is, and the groups that it must not belong to.
#pragma once

#include <optional>
#include <string>

namespace kiosk::account {

enum class AccountLookup { kAbsent = 0, kPresent = 1, kFailed = 2 };

// Looks for a local user of the kiosk's name, whoever made it. `sid` is its SID text when it is present and empty
// otherwise. A failure is logged, absence is not.
AccountLookup LookupKioskAccount(std::wstring& sid);

// True when the account that this service recorded as its own exists under the kiosk's name; gives its SID text.
bool RecordedAccountPresent(std::wstring& sid);

// True only when "Provisioned" is 1 and the recorded account is there.
bool IsKioskProvisioned();

// Whether the account of the kiosk's name, whose SID nobody recorded, is one that this service was creating when it was
// cut short: the time of "AccountCreating" stands, the account is not older than it, and nobody ever signed in to it.
// Anybody else's account is never touched. Empty when Windows does not tell.
std::optional<bool> CreationWasCutShort();

// The name of a group on this computer, in its language; empty when it cannot be resolved. `sidText` as "S-1-5-32-545".
std::wstring WellKnownGroupName(const wchar_t* sidText);

// Takes the recorded account out of every group that would give it more than a standard user has. Does nothing without
// one.
void TrimPrivilegedGroups();

}  // namespace kiosk::account
