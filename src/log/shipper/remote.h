// The remote configuration in force: fetched now and then, the last good one kept in the registry.
#pragma once

#include "log/shipper/endpoint.h"
#include "log/shipper/remote_config.h"
#include "log/shipper/shipper_settings.h"

#include <string>
#include <vector>

namespace kiosk::log::shipper {

class Remote {
 public:
  explicit Remote(const Settings& settings) noexcept : settings_(settings), target_(settings.endpoint) {}

  // Takes over what was kept by an earlier run, without a word.
  void LoadKept();

  // Fetches when it is time; a change is logged and kept, and each reason why there is none once until there is one.
  // Does nothing without a "LogConfigUrl". True when it changed.
  bool FetchWhenDue(Endpoint& endpoint, const CERT_CONTEXT* certificate);

  // Milliseconds until the next fetch; UINT64_MAX: never.
  [[nodiscard]] std::uint64_t DueIn() const noexcept;

  [[nodiscard]] bool Enabled() const noexcept { return config_.enabled; }
  [[nodiscard]] bool Batch() const noexcept { return config_.batch; }
  [[nodiscard]] const win32::HttpTarget& Target() const noexcept { return target_; }

 private:
  bool Use(const RemoteConfig& config);
  bool Complain(const char* what, const std::string& reason);

  const Settings& settings_;
  RemoteConfig config_;
  win32::HttpTarget target_;
  std::uint64_t due_ = 0;          // tick count
  std::vector<std::string> told_;  // reasons that were logged since the last good one
};

}  // namespace kiosk::log::shipper
