#include "pipe/signature.h"

#include "win32/crypt_handles.h"
#include "win32/grow.h"
#include "win32/stop.h"

#include <softpub.h>
#include <wintrust.h>

#include <algorithm>
#include <cstddef>
#include <span>
#include <utility>
#include <vector>

namespace kiosk::pipe {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kFirstSigner = 0;
constexpr int kOwnImageAttempts = 10;
constexpr DWORD kOwnImageWait = 500;

struct ServiceSigner {
  bool isSigned = false;
  std::wstring publisher;
};

// Made by LearnServiceSigner before other threads exist, then only read. Never destroyed: connection threads may
// outlive main.
const ServiceSigner* serviceSigner = nullptr;

// Empty when Windows does not tell.
std::wstring OwnPath() {
  std::vector<wchar_t> path;
  const auto ask = [](wchar_t* buffer, DWORD* size) -> DWORD {
    const DWORD length = GetModuleFileNameW(nullptr, buffer, *size);
    if (length == 0) {
      return GetLastError();
    }
    if (length == *size) {
      return ERROR_INSUFFICIENT_BUFFER;  // cut
    }
    *size = length;
    return ERROR_SUCCESS;
  };
  const DWORD error = win32::CallGrowing(path, ask, MAX_PATH);
  return error == ERROR_SUCCESS ? std::wstring(path.data(), path.size()) : std::wstring();
}

std::wstring SubjectOf(const CERT_CONTEXT* certificate) {
  CERT_NAME_BLOB* subject = &certificate->pCertInfo->Subject;
  const DWORD size = CertNameToStrW(X509_ASN_ENCODING, subject, CERT_X500_NAME_STR, nullptr, 0);
  std::wstring name(size, L'\0');
  const DWORD used = CertNameToStrW(X509_ASN_ENCODING, subject, CERT_X500_NAME_STR, name.data(), size);
  name.resize(used > 0 ? used - 1 : 0);  // without the terminating NUL
  return name;
}

using EncodedCertificate = std::vector<std::byte>;

std::span<const std::byte> Encoded(const CERT_CONTEXT* certificate) {
  return std::as_bytes(std::span(certificate->pbCertEncoded, certificate->cbCertEncoded));
}

// The certificate on which the verdict of a verification rests.
EncodedCertificate SignerOf(HANDLE verification) {
  CRYPT_PROVIDER_DATA* data = WTHelperProvDataFromStateData(verification);
  CRYPT_PROVIDER_SGNR* signer = data != nullptr ? WTHelperGetProvSignerFromChain(data, kFirstSigner, FALSE, 0) : nullptr;
  const CRYPT_PROVIDER_CERT* leaf = signer != nullptr ? WTHelperGetProvCertFromChain(signer, 0) : nullptr;
  if (leaf == nullptr || leaf->pCert == nullptr) {
    return {};
  }
  const std::span<const std::byte> encoded = Encoded(leaf->pCert);
  return {encoded.begin(), encoded.end()};
}

// The verdict of Windows on the file's embedded signature: no user interface, no revocation checks, no network. Empty when
// it is not trusted, otherwise the signer's certificate.
EncodedCertificate VerifiedSigner(const wchar_t* path, HANDLE file) {
  WINTRUST_FILE_INFO subject{};
  subject.cbStruct = sizeof(subject);
  subject.pcwszFilePath = path;
  subject.hFile = file;
  WINTRUST_DATA question{};
  question.cbStruct = sizeof(question);
  question.dwUIChoice = WTD_UI_NONE;
  question.fdwRevocationChecks = WTD_REVOKE_NONE;
  question.dwUnionChoice = WTD_CHOICE_FILE;
  question.pFile = &subject;
  question.dwStateAction = WTD_STATEACTION_VERIFY;
  question.dwProvFlags = WTD_CACHE_ONLY_URL_RETRIEVAL;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const auto nobody = static_cast<HWND>(INVALID_HANDLE_VALUE);
  const bool trusted = WinVerifyTrust(nobody, &action, &question) == ERROR_SUCCESS;
  EncodedCertificate signer = trusted ? SignerOf(question.hWVTStateData) : EncodedCertificate();
  question.dwStateAction = WTD_STATEACTION_CLOSE;
  WinVerifyTrust(nobody, &action, &question);
  return signer;
}

// The Subject of the certificate that the file's first signature names. The bag of certificates in a signature is itself
// unsigned, and one may be planted there under the name and number of the real signer's: it has to be that one.
std::optional<std::wstring> PublisherOfFile(const wchar_t* path, const EncodedCertificate& verified) {
  win32::CertStore store;
  win32::CryptMessage message;
  if (CryptQueryObject(CERT_QUERY_OBJECT_FILE, path, CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                       CERT_QUERY_FORMAT_FLAG_BINARY, 0, nullptr, nullptr, nullptr, store.Put(), message.Put(),
                       nullptr) == 0) {
    return std::nullopt;
  }
  std::vector<std::byte> signer;
  const auto ask = [&message](std::byte* buffer, DWORD* size) -> DWORD {
    return CryptMsgGetParam(message.Get(), CMSG_SIGNER_CERT_INFO_PARAM, kFirstSigner, buffer, size) != 0
               ? ERROR_SUCCESS
               : GetLastError();
  };
  if (win32::CallGrowing(signer, ask) != ERROR_SUCCESS || signer.size() < sizeof(CERT_INFO)) {
    return std::nullopt;
  }
  const win32::Certificate certificate(
      CertFindCertificateInStore(store.Get(), kEncoding, 0, CERT_FIND_SUBJECT_CERT, signer.data(), nullptr));
  if (!certificate || !std::ranges::equal(Encoded(certificate.Get()), verified)) {
    return std::nullopt;
  }
  return SubjectOf(certificate.Get());
}

// An updater or a scanner may have our own file open for a moment; the whole run depends on this one look.
win32::FileHandle HoldOwnImage(const wchar_t* path) {
  win32::FileHandle image = HoldImage(path);
  for (int attempt = 1; !image && GetLastError() == ERROR_SHARING_VIOLATION && attempt < kOwnImageAttempts; ++attempt) {
    static_cast<void>(win32::WaitOrStop(nullptr, kOwnImageWait));
    image = HoldImage(path);
  }
  return image;
}

ServiceSigner ReadServiceSigner() {
  const std::wstring path = OwnPath();
  const win32::FileHandle image = HoldOwnImage(path.c_str());
  ServiceSigner signer;
  if (image) {
    signer.publisher = TrustedPublisherOfFile(path.c_str(), image.Get()).value_or(L"");
  }
  signer.isSigned = !signer.publisher.empty();
  return signer;
}

}  // namespace

win32::FileHandle HoldImage(const wchar_t* path) noexcept {
  return win32::FileHandle(
      CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

std::optional<std::wstring> TrustedPublisherOfFile(const wchar_t* path, HANDLE file) {
  const EncodedCertificate signer = VerifiedSigner(path, file);
  return signer.empty() ? std::nullopt : PublisherOfFile(path, signer);
}

void LearnServiceSigner() { serviceSigner = new ServiceSigner(ReadServiceSigner()); }

bool ServiceIsSigned() noexcept { return serviceSigner != nullptr && serviceSigner->isSigned; }

bool IsServicePublisher(std::wstring_view publisher) noexcept {
  return ServiceIsSigned() && publisher == serviceSigner->publisher;
}

}  // namespace kiosk::pipe
