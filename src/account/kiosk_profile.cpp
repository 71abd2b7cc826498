#include "account/kiosk_profile.h"

#include "lockdown/kiosk_policies.h"
#include "log/log.h"
#include "state/folders.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <userenv.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <optional>
#include <vector>

namespace kiosk::account {
namespace {

constexpr int kAttempts = 10;
constexpr DWORD kRetry = 1000;
constexpr DWORD kStaleInterval = 3'600'000;

// When the noted profiles are tried next, as a tick count. The service thread at start, then the worker; whoever
// provisions.
std::atomic<std::uint64_t> nextStaleTry{0};

// ERROR_SUCCESS also when there is nothing to delete.
DWORD TryToDelete(const std::wstring& sid) {
  if (DeleteProfileW(sid.c_str(), nullptr, nullptr) != 0) {
    return ERROR_SUCCESS;
  }
  const DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? ERROR_SUCCESS : error;
}

// The texts of a REG_MULTI_SZ, to the empty one that ends it. Empty optional when nobody can tell now.
std::optional<std::vector<std::wstring>> StaleSids() {
  std::vector<std::wstring> sids;
  state::RawValue raw;
  if (!state::ReadKnownState(state::kStaleProfileSids, raw)) {
    return std::nullopt;
  }
  if (raw.type != REG_MULTI_SZ) {
    return sids;
  }
  const auto* at = reinterpret_cast<const wchar_t*>(raw.bytes.data());
  const wchar_t* const end = at + raw.bytes.size() / sizeof(wchar_t);
  while (at != end && *at != L'\0') {
    const wchar_t* const stop = std::find(at, end, L'\0');
    sids.emplace_back(at, stop);
    at = stop == end ? end : stop + 1;
  }
  return sids;
}

bool StoreStaleSids(const std::vector<std::wstring>& sids) {
  if (sids.empty()) {
    return state::DeleteStateValue(state::kStaleProfileSids);
  }
  std::wstring text;
  for (const std::wstring& sid : sids) {
    text.append(sid).push_back(L'\0');
  }
  // The terminator that StringBytes counts is the empty text at the end.
  return state::WriteState(state::kStaleProfileSids, REG_MULTI_SZ, text.c_str(), state::StringBytes(text)) ==
         ERROR_SUCCESS;
}

std::string FolderOf(const std::wstring& sid) { return win32::ToNarrow(state::ProfileFolder(sid).value_or(sid)); }

}  // namespace

bool DeleteKioskProfile(const std::wstring& sid) {
  lockdown::UnloadLeftOverHive();
  DWORD error = ERROR_SUCCESS;
  for (int attempt = 1; attempt <= kAttempts; ++attempt) {
    error = TryToDelete(sid);
    if (error == ERROR_SUCCESS) {
      return true;
    }
    if (attempt < kAttempts && win32::WaitOrStop(nullptr, kRetry) == win32::WaitResult::kStop) {
      break;
    }
  }
  log::Log(log::kError, log::kKiosk, "cannot delete the kiosk profile (%lu)", error);
  return false;
}

bool NoteStaleProfile(const std::wstring& sid) {
  std::optional<std::vector<std::wstring>> sids = StaleSids();
  if (sids && std::find(sids->begin(), sids->end(), sid) == sids->end()) {
    sids->push_back(sid);
  }
  if (!sids || !StoreStaleSids(*sids) || !state::FlushStateKey()) {
    return false;
  }
  nextStaleTry = win32::TickCount() + kStaleInterval;
  log::Log(log::kWarn, log::kKiosk, "the profile of an earlier kiosk account is left for later: %s",
           FolderOf(sid).c_str());
  return true;
}

void DeleteStaleProfiles(bool forTheLastTime) {
  const std::optional<std::vector<std::wstring>> sids = StaleSids();
  if (!sids) {
    return;
  }
  const std::wstring current = state::ReadStateString(state::kAccountSid);
  std::vector<std::wstring> left;
  for (const std::wstring& sid : *sids) {
    // Still on record as well: a provisioning was cut short between the two, and the next one deletes it.
    if (win32::EqualIgnoringCase(sid, current)) {
      left.push_back(sid);
      continue;
    }
    const std::string folder = FolderOf(sid);
    const DWORD error = TryToDelete(sid);
    if (error == ERROR_SUCCESS) {
      log::Log(log::kNotice, log::kKiosk, "the profile of an earlier kiosk account is deleted: %s", folder.c_str());
      continue;
    }
    left.push_back(sid);
    if (forTheLastTime) {
      log::Log(log::kWarn, log::kKiosk, "the profile of an earlier kiosk account stays behind (%lu): %s", error,
               folder.c_str());
    }
  }
  if (left.size() != sids->size() || (sids->empty() && state::ReadState(state::kStaleProfileSids))) {
    StoreStaleSids(left);
  }
}

bool StaleProfilesAreDue() {
  if (win32::TickCount() < nextStaleTry || !state::ReadState(state::kStaleProfileSids)) {
    return false;
  }
  nextStaleTry = win32::TickCount() + kStaleInterval;
  return true;
}

DWORD StaleProfilesWait() {
  state::RawValue noted;
  return state::ReadState(state::kStaleProfileSids, noted) == ERROR_FILE_NOT_FOUND ? INFINITE : kStaleInterval;
}

}  // namespace kiosk::account
