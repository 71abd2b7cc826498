#include "pipe/signature.h"

#include "win32/grow.h"
#include "win32/owners.h"

#include <softpub.h>
#include <wintrust.h>

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <span>
#include <utility>
#include <vector>

namespace kiosk::pipe {
namespace {

constexpr DWORD kEncoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
constexpr DWORD kFirstSigner = 0;

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
  CRYPT_PROVIDER_SGNR* signer =
      data != nullptr ? WTHelperGetProvSignerFromChain(data, kFirstSigner, FALSE, 0) : nullptr;
  const CRYPT_PROVIDER_CERT* leaf = signer != nullptr ? WTHelperGetProvCertFromChain(signer, 0) : nullptr;
  if (leaf == nullptr || leaf->pCert == nullptr) {
    return {};
  }
  const std::span<const std::byte> encoded = Encoded(leaf->pCert);
  return {encoded.begin(), encoded.end()};
}

struct Verification {
  Verdict verdict = Verdict::kNotTrusted;
  EncodedCertificate signer;  // of a trusted file
};

// Of a file without a signature the last error says the same; with any other one the file could not be read. The rest
// are no verdicts on a signature.
bool CouldNotRead(LONG status, DWORD reason) noexcept {
  if (status == TRUST_E_NOSIGNATURE) {
    constexpr LONG kUnsigned[] = {TRUST_E_NOSIGNATURE, TRUST_E_SUBJECT_FORM_UNKNOWN, TRUST_E_PROVIDER_UNKNOWN};
    return std::ranges::find(kUnsigned, static_cast<LONG>(reason)) == std::end(kUnsigned);
  }
  return status > 0 || HRESULT_FACILITY(status) == FACILITY_WIN32 || status == CRYPT_E_FILE_ERROR ||
         status == TRUST_E_SYSTEM_ERROR;
}

// The verdict of Windows on the file's embedded signature: no user interface, no revocation checks, no network.
Verification Verify(const wchar_t* path, HANDLE file) {
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
  const LONG status = WinVerifyTrust(nobody, &action, &question);
  Verification result;
  if (status != ERROR_SUCCESS) {
    result.verdict = CouldNotRead(status, GetLastError()) ? Verdict::kUnreadable : Verdict::kNotTrusted;
  } else if (result.signer = SignerOf(question.hWVTStateData); !result.signer.empty()) {
    result.verdict = Verdict::kTrusted;
  }
  question.dwStateAction = WTD_STATEACTION_CLOSE;
  WinVerifyTrust(nobody, &action, &question);
  return result;
}

// The Subject of the certificate that the file's first signature names. The bag of certificates in a signature is
// itself unsigned, and one may be planted there under the name and number of the real signer's: it has to be that one.
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

}  // namespace

win32::FileHandle HoldImage(const wchar_t* path) noexcept {
  return win32::FileHandle(
      CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
}

FileSignature ReadSignature(const wchar_t* path, HANDLE file) {
  Verification verification = Verify(path, file);
  if (verification.verdict != Verdict::kTrusted) {
    return {verification.verdict, {}};
  }
  std::optional<std::wstring> publisher = PublisherOfFile(path, verification.signer);
  return publisher ? FileSignature{Verdict::kTrusted, std::move(*publisher)} : FileSignature{Verdict::kUnreadable, {}};
}

std::optional<std::wstring> TrustedPublisherOfFile(const wchar_t* path, HANDLE file) {
  FileSignature signature = ReadSignature(path, file);
  return signature.verdict == Verdict::kTrusted ? std::optional(std::move(signature.publisher)) : std::nullopt;
}

}  // namespace kiosk::pipe
