// The certificate that this terminal shows to the central endpoint: one of the computer's personal store, named in the
// settings, with its key.
#pragma once

#include "log/shipper/shipper_settings.h"
#include "win32/owners.h"

namespace kiosk::log::shipper {

class ClientCertificate {
 public:
  explicit ClientCertificate(const Settings& settings) noexcept
      : wanted_(settings.certificateWanted), thumbprint_(settings.thumbprint) {}

  // Makes sure that the certificate is there, valid now and has its key; it is looked for in the store only while none
  // is held. Null when all is well, and when none was named; otherwise what is wrong, for a log line.
  const char* Check() noexcept;

  [[nodiscard]] bool Wanted() const noexcept { return wanted_; }
  // Null while Check finds fault, and when none was named.
  [[nodiscard]] const CERT_CONTEXT* Get() const noexcept { return certificate_.Get(); }

 private:
  const char* Find() noexcept;

  bool wanted_;
  std::optional<Thumbprint> thumbprint_;
  win32::Certificate certificate_;
};

}  // namespace kiosk::log::shipper
