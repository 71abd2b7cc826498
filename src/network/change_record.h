// The record of changes of an adapter that are not over: under way, cut short, or not proven yet. It is the value
// "PriorNetwork" of the state key.
#pragma once

#include "network/adapter_settings.h"

#include <optional>
#include <string>
#include <vector>

namespace kiosk::network {

// True also when nobody can tell.
bool HasChangeRecords();

// False when they cannot be read: that is not the same as none.
bool ReadChangeRecords(std::vector<ChangeRecord>& records);

// Notes it durably, in the place of an older one of that adapter. False when it is not certain to last; then the older
// one stands again.
bool NoteChange(const ChangeRecord& record);

// False when the record is still there.
bool ForgetChange(const std::string& adapter);

}  // namespace kiosk::network
