// The record of settings that a change under way is about to replace.
#pragma once

#include "network/settings.h"

#include <optional>
#include <string>
#include <vector>

namespace kiosk::network {

struct PriorSettings {
  std::wstring adapter;
  Settings settings;
};

bool HasPriorSettings();
std::vector<PriorSettings> ReadPriorSettings();

// Notes them durably, and returns what is on record for the adapter: an older record, of a change that is unfinished,
// stays. Empty when that failed, and then nothing may be changed.
std::optional<PriorSettings> NotePriorSettings(const PriorSettings& prior);

// The adapter is what it should be again, or for good. False when the record is still there.
bool ForgetPriorSettings(const std::wstring& adapter);

}  // namespace kiosk::network
