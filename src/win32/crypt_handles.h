// Owners of what the certificate calls hand out.
#pragma once

#include "win32/handle.h"

#include <wincrypt.h>

namespace kiosk::win32 {

struct CertStoreTraits {
  using Value = HCERTSTORE;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { CertCloseStore(value, 0); }
};
struct CryptMessageTraits {
  using Value = HCRYPTMSG;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { CryptMsgClose(value); }
};
struct CertificateTraits {
  using Value = const CERT_CONTEXT*;
  static Value Invalid() noexcept { return nullptr; }
  static void Free(Value value) noexcept { CertFreeCertificateContext(value); }
};

using CertStore = Owner<CertStoreTraits>;
using CryptMessage = Owner<CryptMessageTraits>;
using Certificate = Owner<CertificateTraits>;

}  // namespace kiosk::win32
