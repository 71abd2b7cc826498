#include "network/change_record.h"

#include "state/kiosk_state.h"
#include "state/stored_json.h"

namespace kiosk::network {
namespace {

bool Store(const std::vector<ChangeRecord>& records) {
  return records.empty() ? state::DeleteStateValue(state::kPriorNetwork)
                         : state::StoreJson(state::kPriorNetwork, ToJson(records));
}

void Remove(std::vector<ChangeRecord>& records, const std::string& adapter) {
  std::erase_if(records, [&](const ChangeRecord& each) { return each.adapter == adapter; });
}

}  // namespace

bool HasChangeRecords() {
  state::RawValue raw;
  return state::ReadState(state::kPriorNetwork, raw) != ERROR_FILE_NOT_FOUND;
}

bool ReadChangeRecords(std::vector<ChangeRecord>& records) {
  json::Value stored;
  const bool known = state::LoadJson(state::kPriorNetwork, stored);
  records = RecordsFromJson(stored);
  return known;
}

bool NoteChange(const ChangeRecord& record) {
  std::vector<ChangeRecord> before;
  if (!ReadChangeRecords(before)) {
    return false;
  }
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

bool ForgetChange(const std::string& adapter) {
  if (!HasChangeRecords()) {
    return true;
  }
  std::vector<ChangeRecord> records;
  if (!ReadChangeRecords(records)) {
    return false;
  }
  Remove(records, adapter);
  const bool forgotten = Store(records);
  state::FlushStateKey();
  return forgotten;
}

}  // namespace kiosk::network
