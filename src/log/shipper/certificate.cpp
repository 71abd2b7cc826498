#include "log/shipper/certificate.h"

#include "win32/clock.h"

namespace kiosk::log::shipper {
namespace {

bool IsValidNow(const CERT_CONTEXT* certificate) noexcept {
  FILETIME now;
  GetSystemTimeAsFileTime(&now);
  return CertVerifyTimeValidity(&now, certificate->pCertInfo) == 0;
}

// The key stays with the certificate and is released with it.
bool HasKey(const CERT_CONTEXT* certificate) noexcept {
  HCRYPTPROV_OR_NCRYPT_KEY_HANDLE key = 0;
  DWORD keyKind = 0;
  BOOL mustFree = FALSE;
  return CryptAcquireCertificatePrivateKey(
             certificate, CRYPT_ACQUIRE_CACHE_FLAG | CRYPT_ACQUIRE_SILENT_FLAG | CRYPT_ACQUIRE_ALLOW_NCRYPT_KEY_FLAG,
             nullptr, &key, &keyKind, &mustFree) != 0;
}

}  // namespace

const char* ClientCertificate::Find() noexcept {
  if (!thumbprint_) {
    return "\"ClientCertThumbprint\" is not 40 hexadecimal digits";
  }
  const win32::CertStore store(
      CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                    CERT_SYSTEM_STORE_LOCAL_MACHINE | CERT_STORE_READONLY_FLAG | CERT_STORE_OPEN_EXISTING_FLAG, L"MY"));
  CRYPT_HASH_BLOB hash{static_cast<DWORD>(thumbprint_->size()), thumbprint_->data()};
  win32::Certificate found(
      store ? CertFindCertificateInStore(store.Get(), X509_ASN_ENCODING, 0, CERT_FIND_SHA1_HASH, &hash, nullptr)
            : nullptr);
  if (!found) {
    return "the client certificate is not in the computer's personal store";
  }
  if (!IsValidNow(found.Get())) {
    return "the client certificate has expired or is not valid yet";
  }
  if (!HasKey(found.Get())) {
    return "the client certificate has no key that this service may use";
  }
  certificate_ = std::move(found);
  return nullptr;
}

const char* ClientCertificate::Check() noexcept {
  if (!wanted_) {
    return nullptr;
  }
  if (certificate_ && !IsValidNow(certificate_.Get())) {
    certificate_.Reset();
  }
  return certificate_ ? nullptr : Find();
}

}  // namespace kiosk::log::shipper
