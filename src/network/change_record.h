// The record of changes of an adapter that are not over: under way, cut short, or not proven yet. It is the value
// "PriorNetwork" of the state key.
#pragma once

#include "network/adapter_settings.h"

#include <optional>
#include <string>
#include <vector>

namespace kiosk::network {

struct ChangeRecord {
  std::wstring adapter;
  Settings before;                 // when several changes followed each other: before the first
  std::optional<Settings> wanted;  // none in a record that an older version of the service left
  bool unproven = false;           // made, and the portal has not answered since
};

bool HasChangeRecords();
std::vector<ChangeRecord> ReadChangeRecords();
std::optional<ChangeRecord> FindChangeRecord(const std::wstring& adapter);

// Notes it durably, in the place of an older one of that adapter. False when it is not certain to last; then the older
// one stands again.
bool NoteChange(const ChangeRecord& record);

// False when the record is still there.
bool ForgetChange(const std::wstring& adapter);

}  // namespace kiosk::network
