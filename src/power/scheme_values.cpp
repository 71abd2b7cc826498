#include "power/scheme_values.h"

#include "json/serialise.h"
#include "log/log.h"
#include "power/active_scheme.h"
#include "state/kiosk_state.h"
#include "state/stored_json.h"
#include "win32/wide_text.h"

#include <objbase.h>

#include <cmath>
#include <iterator>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kiosk::power {
namespace {

// Windows' names: GUID_VIDEO_SUBGROUP, GUID_VIDEO_POWERDOWN_TIMEOUT, GUID_SLEEP_SUBGROUP, GUID_STANDBY_TIMEOUT. The
// last, "allow wake timers", has no name in the headers.
constexpr GUID kVideo{0x7516B95F, 0xF776, 0x4464, {0x8C, 0x53, 0x06, 0x16, 0x7F, 0x40, 0xCC, 0x99}};
constexpr GUID kVideoOff{0x3C0BC021, 0xC8A8, 0x4E07, {0xA9, 0x73, 0x6B, 0x14, 0xCB, 0xCB, 0x2B, 0x7E}};
constexpr GUID kSleep{0x238C9FA8, 0x0AAD, 0x41ED, {0x83, 0xF4, 0x97, 0xBE, 0x24, 0x2C, 0x8F, 0x20}};
constexpr GUID kStandby{0x29F6C1DB, 0x86DA, 0x48C5, {0x9F, 0xDB, 0xF2, 0xB6, 0x7B, 0x1F, 0x44, 0xDA}};
constexpr GUID kAllowWakeTimers{0xBD3B718A, 0x0680, 0x4D9D, {0x8A, 0xB2, 0xE1, 0xD2, 0xB4, 0xAC, 0x80, 0x6D}};

struct PowerSettingDescriptor {
  GUID subgroup;
  GUID setting;
  const char* name;
};

// In the order of SchemeSetting.
constexpr PowerSettingDescriptor kSettings[] = {
    {kVideo, kVideoOff, "screen off"},
    {kSleep, kStandby, "sleep"},
    {kSleep, kAllowWakeTimers, "wake timers"},
};

struct Supply {
  const char* name;
  decltype(&PowerReadACValueIndex) read;
  decltype(&PowerWriteACValueIndex) write;
};

const Supply kSupplies[] = {
    {"AC", PowerReadACValueIndex, PowerWriteACValueIndex},
    {"DC", PowerReadDCValueIndex, PowerWriteDCValueIndex},
};

DWORD Read(const GUID& scheme, const PowerSettingDescriptor& descriptor, const Supply& supply, DWORD& value) {
  return supply.read(nullptr, &scheme, &descriptor.subgroup, &descriptor.setting, &value);
}

bool Reads(const GUID& scheme, const PowerSettingDescriptor& descriptor, const Supply& supply, DWORD value) {
  DWORD current = 0;
  return Read(scheme, descriptor, supply, current) == ERROR_SUCCESS && current == value;
}

DWORD Write(const GUID& scheme, const PowerSettingDescriptor& descriptor, const Supply& supply, DWORD value) {
  return supply.write(nullptr, &scheme, &descriptor.subgroup, &descriptor.setting, value);
}

std::string GuidText(const GUID& guid) {
  wchar_t text[40];
  return StringFromGUID2(guid, text, static_cast<int>(std::size(text))) > 0 ? win32::ToNarrow(text) : std::string();
}

// Mains before battery for each setting in turn. A setting that the scheme lacks is null; one that is there and cannot
// be read is an error, since it could never be given back.
DWORD ReadAll(const GUID& scheme, json::Value& values) {
  for (const PowerSettingDescriptor& descriptor : kSettings) {
    for (const Supply& supply : kSupplies) {
      DWORD value = 0;
      const DWORD error = Read(scheme, descriptor, supply, value);
      if (error != ERROR_SUCCESS && error != ERROR_FILE_NOT_FOUND) {
        return error;
      }
      values.Append(error == ERROR_SUCCESS ? json::Value(value) : json::Value());
    }
  }
  return ERROR_SUCCESS;
}

// True when the computer's own values are safe, from now or from an earlier change of this enrolment.
bool SavePriorPower(const GUID& scheme) {
  state::RawValue saved;
  DWORD error = static_cast<DWORD>(state::ReadState(state::kPriorPower, saved));
  if (error == ERROR_SUCCESS && !saved.Text().value_or(L"").empty()) {
    return true;
  }
  json::Value values = json::Value::Array();
  // Copies that cannot be read may be there all the same, and must not be replaced.
  if (error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND) {
    error = ReadAll(scheme, values);
  }
  if (error == ERROR_SUCCESS) {
    json::Value prior = json::Value::Object();
    prior.Set("scheme", GuidText(scheme));
    prior.Set("values", std::move(values));
    const std::wstring text = win32::ToWide(json::Serialise(prior));
    error = static_cast<DWORD>(state::WriteState(state::kPriorPower, REG_SZ, text.c_str(), state::StringBytes(text)));
  }
  if (error == ERROR_SUCCESS && !state::FlushStateKey()) {
    error = ERROR_WRITE_FAULT;
  }
  if (error != ERROR_SUCCESS) {
    log::Log(log::kError, log::kKiosk, "power: cannot save the computer's own power settings (%lu); nothing is changed",
             error);
  }
  return error == ERROR_SUCCESS;
}

// The number as an index; empty for what no index can be, an infinite one being 0.
std::optional<DWORD> SavedIndex(const json::Value& entry) {
  if (!entry.IsNumber()) {
    return std::nullopt;
  }
  const double number = std::isfinite(entry.number()) ? std::trunc(entry.number()) : 0;
  if (number < 0 || number > std::numeric_limits<DWORD>::max()) {
    return std::nullopt;
  }
  return static_cast<DWORD>(number);
}

bool PutValuesBack(const GUID& scheme, const std::vector<json::Value>& values) {
  bool restored = false;
  std::size_t index = 0;
  for (const PowerSettingDescriptor& descriptor : kSettings) {
    for (const Supply& supply : kSupplies) {
      const std::optional<DWORD> value = index < values.size() ? SavedIndex(values[index]) : std::nullopt;
      ++index;
      if (!value || Reads(scheme, descriptor, supply, *value)) {
        continue;
      }
      DWORD error = Write(scheme, descriptor, supply, *value);
      const bool gone = error == ERROR_FILE_NOT_FOUND;  // a scheme which somebody deleted
      if (error != ERROR_SUCCESS && !gone) {
        error = Write(scheme, descriptor, supply, *value);  // since the copy goes in any case
      }
      if (error == ERROR_SUCCESS) {
        restored = true;
      } else if (!gone) {
        log::Log(log::kError, log::kKiosk, "power: cannot put %s (%s) back to %lu (%lu)", descriptor.name, supply.name,
                 *value, error);
      }
    }
  }
  return restored;
}

}  // namespace

bool SetPowerValue(const GUID& scheme, SchemeSetting setting, DWORD value, bool& changed) {
  const PowerSettingDescriptor& descriptor = kSettings[static_cast<std::size_t>(setting)];
  bool right = true;
  for (const Supply& supply : kSupplies) {
    if (Reads(scheme, descriptor, supply, value)) {
      continue;
    }
    if (!SavePriorPower(scheme)) {
      return false;
    }
    const DWORD error = Write(scheme, descriptor, supply, value);
    if (error == ERROR_SUCCESS) {
      changed = true;
    } else {
      log::Log(log::kError, log::kKiosk, "power: cannot set %s (%s) to %lu (%lu)", descriptor.name, supply.name, value,
               error);
      right = false;
    }
  }
  return right;
}

bool RestorePriorPower() {
  json::Value prior;
  if (!state::LoadJson(state::kPriorPower, prior)) {
    log::Log(log::kError, log::kKiosk, "power: cannot read the computer's own power settings; they are kept for later");
    return false;
  }
  const std::wstring text = win32::ToWide(json::Member(prior, "scheme").text());
  GUID scheme{};
  if (text.empty() || FAILED(CLSIDFromString(text.c_str(), &scheme))) {
    return true;
  }
  const bool restored = PutValuesBack(scheme, json::Member(prior, "values").items());
  // Also when nothing differed: an earlier run may have been cut short right before this.
  const ActiveScheme active;
  if (active && IsEqualGUID(*active.Id(), scheme) && PowerSetActiveScheme(nullptr, &scheme) != ERROR_SUCCESS) {
    PowerSetActiveScheme(nullptr, &scheme);  // nobody comes for it again, and until then the kiosk's values count
  }
  if (restored) {
    log::Log(log::kNotice, log::kKiosk, "power: the scheme is back as it was before enrolment");
  }
  return true;
}

}  // namespace kiosk::power
