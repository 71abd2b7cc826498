#include "network/change_record.h"

#include "state/kiosk_state.h"
#include "state/stored_json.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <utility>

namespace kiosk::network {
namespace {

bool Store(const std::vector<ChangeRecord>& records) {
  if (records.empty()) {
    return state::DeleteStateValue(state::kPriorNetwork);
  }
  json::Value list = json::Value::Array();
  for (const ChangeRecord& each : records) {
    json::Value item = json::Value::Object();
    item.Set("adapter", win32::ToNarrow(each.adapter)).Set("settings", ToJson(each.before));
    if (each.wanted) {
      item.Set("wanted", ToJson(*each.wanted)).Set("unproven", each.unproven);
    }
    list.Append(std::move(item));
  }
  return state::StoreJson(state::kPriorNetwork, list);
}

void Remove(std::vector<ChangeRecord>& records, const std::wstring& adapter) {
  std::erase_if(records, [&](const ChangeRecord& each) { return each.adapter == adapter; });
}

}  // namespace

bool HasChangeRecords() { return state::ReadState(state::kPriorNetwork).has_value(); }

std::vector<ChangeRecord> ReadChangeRecords() {
  std::vector<ChangeRecord> records;
  const json::Value list = state::LoadJson(state::kPriorNetwork);
  for (const json::Value& item : list.items()) {
    if (std::optional<Settings> before = FromJson(json::Member(item, "settings"))) {
      std::optional<Settings> wanted = FromJson(json::Member(item, "wanted"));
      const bool unproven = wanted && json::Member(item, "unproven").boolean();
      records.push_back(
          {win32::ToWide(json::Member(item, "adapter").text()), std::move(*before), std::move(wanted), unproven});
    }
  }
  return records;
}

std::optional<ChangeRecord> FindChangeRecord(const std::wstring& adapter) {
  for (const ChangeRecord& each : ReadChangeRecords()) {
    if (each.adapter == adapter) {
      return each;
    }
  }
  return std::nullopt;
}

bool NoteChange(const ChangeRecord& record) {
  const std::vector<ChangeRecord> before = ReadChangeRecords();
  std::vector<ChangeRecord> records = before;
  Remove(records, record.adapter);
  records.push_back(record);
  if (Store(records) && state::FlushStateKey()) {
    return true;
  }
  Store(before);  // written, perhaps, but not for certain
  state::FlushStateKey();
  return false;
}

bool ForgetChange(const std::wstring& adapter) {
  if (!HasChangeRecords()) {
    return true;
  }
  std::vector<ChangeRecord> records = ReadChangeRecords();
  Remove(records, adapter);
  const bool forgotten = Store(records);
  state::FlushStateKey();
  return forgotten;
}

}  // namespace kiosk::network
