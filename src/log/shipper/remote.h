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

  // Puts in force what an earlier run kept in "RemoteConfig", or else the defaults. Logs nothing.
  void LoadKept();

  // Fetches when it is due. A change is put in force, logged and kept in "RemoteConfig". Each reason why there is no
  // configuration is logged once, until a fetch succeeds. Does nothing without a "LogConfigUrl". True when it changed.
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
