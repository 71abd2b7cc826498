#include "tools/proof/trust.h"

#include "text/text.h"
#include "tools/proof/journal.h"
#include "win32/owners.h"
#include "win32/wide_text.h"

#include <vector>

namespace proof {

using kiosk::win32::Certificate;
using kiosk::win32::CertStore;

bool Trust(const std::string& certificate) {
  const Certificate made(CertCreateCertificateContext(
      X509_ASN_ENCODING, reinterpret_cast<const BYTE*>(certificate.data()), static_cast<DWORD>(certificate.size())));
  std::vector<BYTE> digest(20);
  DWORD size = static_cast<DWORD>(digest.size());
  const CertStore roots(CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root"));
  return made && roots && CertGetCertificateContextProperty(made.Get(), CERT_HASH_PROP_ID, digest.data(), &size) != 0 &&
         NoteTrust(kiosk::win32::ToWide(kiosk::text::Hex(digest)).c_str()) &&
         CertAddCertificateContextToStore(roots.Get(), made.Get(), CERT_STORE_ADD_REPLACE_EXISTING, nullptr) != 0;
}

// By the key that Windows keeps it in ("System Store Locations"): it goes whoever has the store open.
bool Distrust(const std::wstring& thumbprint) {
  const LSTATUS error = RegDeleteTreeW(
      HKEY_LOCAL_MACHINE, (L"SOFTWARE\\Microsoft\\SystemCertificates\\Root\\Certificates\\" + thumbprint).c_str());
  return error == ERROR_SUCCESS || error == ERROR_FILE_NOT_FOUND;
}

}  // namespace proof
