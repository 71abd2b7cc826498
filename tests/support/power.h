// The power policy on a terminal, and what applying it changes.
#pragma once

#include "json/parse.h"
#include "json/serialise.h"
#include "portal/policies.h"
#include "power/power_commands.h"
#include "power/power_policy_store.h"
#include "power/power_scheme.h"
#include "sim/com.h"
#include "sim/faults.h"
#include "sim/machine.h"
#include "sim/power.h"
#include "sim/tasks.h"
#include "tests/support/command.h"
#include "tests/support/terminal.h"
#include "tests/support/words.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace kiosk::power {

using sim::Indexes;
using test::CountLogged;
using test::SetString;

inline constexpr wchar_t kSleepName[] = L"Norvane Kiosk Sleep";
inline constexpr wchar_t kWakeName[] = L"Norvane Kiosk Wake";
inline constexpr char kScheme[] = "{381B4222-F694-41F0-9685-FF5BB260DF2E}";
inline const Indexes kOwn{600, 300, 1800, 900, 2, 0};  // what the computer begins with

inline std::string Policy(int screenOff, int sleep, const std::string& schedule = "false",
                          const std::string& sleepAt = "22:00", const std::string& days = "[1,2,3,4,5]") {
  return "{\"screenOffMinutes\":" + std::to_string(screenOff) + ",\"sleepMinutes\":" + std::to_string(sleep) +
         ",\"schedule\":{\"enabled\":" + schedule + ",\"sleepAt\":\"" + sleepAt + R"(","wakeAt":"07:00","days":)" +
         days + "}}";
}

inline json::Value Json(const std::string& text) { return json::Parse(text).value_or(json::Value()); }

inline void Receive(const std::string& policy, const std::string& source = "tenant") {
  portal::StorePolicies(Json("{\"power\":" + policy + ",\"powerSource\":\"" + source + "\"}"));
}

inline std::string State(const state::StateValue& value) { return win32::ToNarrow(state::ReadStateString(value)); }

inline void Enrol() {
  ASSERT_EQ(state::ProtectStateKey().what, nullptr);
  test::SetRaw(state::kStateKey, L"DeviceToken", REG_BINARY, "x", 1);
}

// Applies the policy in force and returns which calls changed the machine.
inline std::vector<std::string> Apply() {
  const sim::FaultPass pass;
  ApplyEffectivePowerPolicy();
  std::vector<std::string> functions;
  for (const sim::ChangeCall& call : pass.Calls()) {
    functions.push_back(call.function);
  }
  return functions;
}

inline std::ptrdiff_t CountOf(const std::vector<std::string>& texts, std::string_view text) {
  return std::count(texts.begin(), texts.end(), text);
}

class PowerTest : public test::CleanMachine {
 protected:
  void SetUp() override {
    CleanMachine::SetUp();
    Enrol();
  }
  void TearDown() override { EXPECT_EQ(sim::LiveComObjects(), 0); }

  // Lines of the log since the last time, and how many of these equal `text`.
  std::vector<std::string> NewTexts() {
    std::vector<std::string> texts = test::LogTexts();
    texts.erase(texts.begin(), texts.begin() + static_cast<std::ptrdiff_t>(std::exchange(seen_, texts.size())));
    return texts;
  }
  static std::string Set(const std::string& request) { return json::Serialise(test::Ask(PowerSet, request)); }

  std::size_t seen_ = 0;
};

}  // namespace kiosk::power
