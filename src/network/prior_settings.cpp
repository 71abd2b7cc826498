#include "network/prior_settings.h"

#include "json/parse.h"
#include "json/serialise.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <utility>

namespace kiosk::network {
namespace {

bool Store(const std::vector<PriorSettings>& records) {
  if (records.empty()) {
    return state::DeleteStateValue(state::kPriorNetwork);
  }
  json::Value list = json::Value::Array();
  for (const PriorSettings& each : records) {
    json::Value item = json::Value::Object();
    item.Set("adapter", win32::ToNarrow(each.adapter)).Set("settings", ToJson(each.settings));
    list.Append(std::move(item));
  }
  return state::WriteStateString(state::kPriorNetwork, win32::ToWide(json::Serialise(list)));
}

}  // namespace

bool HasPriorSettings() { return state::ReadState(state::kPriorNetwork).has_value(); }

std::vector<PriorSettings> ReadPriorSettings() {
  std::vector<PriorSettings> records;
  const json::Value list =
      json::ParseStored(win32::ToNarrow(state::ReadStateString(state::kPriorNetwork))).value_or(json::Value());
  for (const json::Value& item : list.items()) {
    std::optional<Settings> settings = FromJson(json::Member(item, "settings"));
    if (settings) {
      records.push_back({win32::ToWide(json::Member(item, "adapter").text()), std::move(*settings)});
    }
  }
  return records;
}

std::optional<PriorSettings> NotePriorSettings(const PriorSettings& prior) {
  std::vector<PriorSettings> records = ReadPriorSettings();
  const auto older = std::find_if(records.begin(), records.end(),
                                  [&](const PriorSettings& each) { return each.adapter == prior.adapter; });
  if (older != records.end()) {
    return *older;
  }
  records.push_back(prior);
  if (Store(records) && state::FlushStateKey()) {
    return prior;
  }
  ForgetPriorSettings(prior.adapter);  // written, perhaps, but not for certain
  return std::nullopt;
}

bool ForgetPriorSettings(const std::wstring& adapter) {
  if (!HasPriorSettings()) {
    return true;
  }
  std::vector<PriorSettings> records = ReadPriorSettings();
  std::erase_if(records, [&](const PriorSettings& each) { return each.adapter == adapter; });
  const bool forgotten = Store(records);
  state::FlushStateKey();
  return forgotten;
}

}  // namespace kiosk::network
