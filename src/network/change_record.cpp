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

bool HasChangeRecords() { return state::ReadState(state::kPriorNetwork).has_value(); }

std::vector<ChangeRecord> ReadChangeRecords() { return RecordsFromJson(state::LoadJson(state::kPriorNetwork)); }

std::optional<ChangeRecord> FindChangeRecord(const std::string& adapter) {
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

bool ForgetChange(const std::string& adapter) {
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
