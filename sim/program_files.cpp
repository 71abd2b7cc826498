#include "sim/program_files.h"

#include "sim/files_internal.h"
#include "sim/seam.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <map>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

namespace sim {
namespace {

// What WinVerifyTrust keeps between "verify" and "close"; the real helper functions find their way through it.
struct Verification {
  CRYPT_PROVIDER_CERT certificate{};
  CRYPT_PROVIDER_SGNR signer{};
  CRYPT_PROVIDER_DATA data{};
};

std::mutex mutex;
std::wstring processImage;
std::map<std::wstring, UINT> drives;
std::map<std::wstring, const CERT_CONTEXT*> signers;
std::map<HANDLE, std::unique_ptr<Verification>> verifications;

const CERT_CONTEXT* SignerOf(const wchar_t* path) {
  const std::lock_guard guard(mutex);
  const auto found = signers.find(Lower(path));
  return found == signers.end() ? nullptr : found->second;
}

bool IsSigner(HCRYPTMSG message) {
  const std::lock_guard guard(mutex);
  for (const auto& [path, certificate] : signers) {
    if (certificate == message) {
      return true;
    }
  }
  return false;
}

std::vector<BYTE> Encode(LPCSTR type, const void* what) {
  DWORD size = 0;
  CryptEncodeObject(X509_ASN_ENCODING, type, what, nullptr, &size);
  std::vector<BYTE> bytes(size);
  if (size == 0 || !CryptEncodeObject(X509_ASN_ENCODING, type, what, bytes.data(), &size)) {
    Violation("a certificate cannot be made (%lu)", GetLastError());
  }
  return bytes;
}

// Its signature is none; nobody here looks at it.
const CERT_CONTEXT* MakeCertificate(const std::wstring& subject) {
  std::vector<BYTE> name(512);
  DWORD size = static_cast<DWORD>(name.size());
  if (!CertStrToNameW(X509_ASN_ENCODING, subject.c_str(), CERT_X500_NAME_STR, nullptr, name.data(), &size, nullptr)) {
    Violation("%s is not a name for a certificate", Narrow(subject).c_str());
  }
  BYTE one = 1;
  char algorithm[] = szOID_RSA_SHA256RSA;
  CERT_INFO content{};
  content.dwVersion = CERT_V3;
  content.SerialNumber = {1, &one};
  content.SignatureAlgorithm.pszObjId = algorithm;
  content.Issuer = content.Subject = {size, name.data()};
  GetSystemTimeAsFileTime(&content.NotBefore);
  content.NotAfter = content.NotBefore;
  content.SubjectPublicKeyInfo = {{algorithm, {}}, {1, &one, 0}};
  std::vector<BYTE> bytes = Encode(X509_CERT_TO_BE_SIGNED, &content);
  CERT_SIGNED_CONTENT_INFO whole{};
  whole.ToBeSigned = {static_cast<DWORD>(bytes.size()), bytes.data()};
  whole.SignatureAlgorithm.pszObjId = algorithm;
  whole.Signature = {1, &one, 0};
  bytes = Encode(X509_CERT, &whole);
  return CertCreateCertificateContext(X509_ASN_ENCODING, bytes.data(), static_cast<DWORD>(bytes.size()));
}

// "R:\" of "R:\x.exe"; a path of a server counts as one drive.
UINT DriveTypeOf(const std::wstring& path) {
  if (path.starts_with(L"\\\\") && !path.starts_with(L"\\\\?\\") && !path.starts_with(L"\\\\.\\")) {
    return DRIVE_REMOTE;
  }
  const std::lock_guard guard(mutex);
  const auto found = drives.find(Lower(path.substr(0, 3)));
  return found == drives.end() ? DRIVE_FIXED : found->second;
}

}  // namespace

void SignFile(const std::wstring& path, const std::wstring& subject) {
  const CERT_CONTEXT* certificate = MakeCertificate(subject);
  const std::lock_guard guard(mutex);
  signers[Lower(path)] = certificate;
}

void SetProcessImage(const std::wstring& path) {
  const std::lock_guard guard(mutex);
  processImage = path;
}

void SetDriveType(const std::wstring& root, UINT type) {
  const std::lock_guard guard(mutex);
  drives[Lower(root)] = type;
}

void ForbidServers(const std::wstring& path) {
  if (DriveTypeOf(path) == DRIVE_REMOTE) {
    Violation("%s was opened: the computer signs in to a server", Narrow(path).c_str());
  }
}

}  // namespace sim

using namespace sim;

// "A trailing backslash is required", says the page; and to answer for a server Windows goes and asks there.
SIM(UINT, GetDriveTypeW, LPCWSTR root) {
  const std::wstring path = root != nullptr ? root : L"";
  if (!path.ends_with(L"\\")) {
    Violation("GetDriveTypeW was asked of %s, which is no root", Narrow(path).c_str());
    return DRIVE_NO_ROOT_DIR;
  }
  {
    const std::lock_guard guard(mutex);
    if (const auto found = drives.find(Lower(path)); found != drives.end()) {
      return found->second;
    }
  }
  if (DriveTypeOf(path) == DRIVE_REMOTE) {
    Violation("GetDriveTypeW was asked of %s: the computer signs in to a server", Narrow(path).c_str());
  }
  return ::GetDriveTypeW(root);
}

SIM(WINBOOL, QueryFullProcessImageNameW, HANDLE process, DWORD flags, LPWSTR name, PDWORD size) {
  {
    const std::lock_guard guard(mutex);
    if (!processImage.empty()) {
      *size = static_cast<DWORD>(processImage.copy(name, *size - 1));
      name[*size] = L'\0';
      return TRUE;
    }
  }
  return ::QueryFullProcessImageNameW(process, flags, name, size);
}

SIM(LONG, WinVerifyTrust, HWND window, GUID* action, LPVOID about) {
  auto* const question = static_cast<WINTRUST_DATA*>(about);
  if (question->dwStateAction == WTD_STATEACTION_CLOSE) {
    const std::lock_guard guard(mutex);
    return verifications.erase(question->hWVTStateData) != 0 ? ERROR_SUCCESS : ::WinVerifyTrust(window, action, about);
  }
  const CERT_CONTEXT* signer = SignerOf(question->pFile->pcwszFilePath);
  if (signer == nullptr) {
    return ::WinVerifyTrust(window, action, about);
  }
  auto made = std::make_unique<Verification>();
  made->certificate.cbStruct = sizeof(made->certificate);
  made->certificate.pCert = signer;
  made->signer.cbStruct = sizeof(made->signer);
  made->signer.csCertChain = 1;
  made->signer.pasCertChain = &made->certificate;
  made->data.cbStruct = sizeof(made->data);
  made->data.csSigners = 1;
  made->data.pasSigners = &made->signer;
  question->hWVTStateData = &made->data;
  const std::lock_guard guard(mutex);
  verifications[question->hWVTStateData] = std::move(made);
  return ERROR_SUCCESS;
}

SIM(WINBOOL, CryptQueryObject, DWORD kind, const void* object, DWORD contents, DWORD formats, DWORD flags,
    DWORD* encoding, DWORD* content, DWORD* format, HCERTSTORE* store, HCRYPTMSG* message, const void** context) {
  const CERT_CONTEXT* signer = kind == CERT_QUERY_OBJECT_FILE ? SignerOf(static_cast<const wchar_t*>(object)) : nullptr;
  if (signer == nullptr) {
    return ::CryptQueryObject(kind, object, contents, formats, flags, encoding, content, format, store, message,
                              context);
  }
  *store = CertOpenStore(CERT_STORE_PROV_MEMORY, 0, 0, 0, nullptr);
  CertAddCertificateContextToStore(*store, signer, CERT_STORE_ADD_ALWAYS, nullptr);
  *message = const_cast<CERT_CONTEXT*>(signer);
  return TRUE;
}

SIM(WINBOOL, CryptMsgGetParam, HCRYPTMSG message, DWORD kind, DWORD index, void* data, DWORD* size) {
  if (!IsSigner(message)) {
    return ::CryptMsgGetParam(message, kind, index, data, size);
  }
  const bool fits = data != nullptr && *size >= sizeof(CERT_INFO);
  if (fits) {
    *static_cast<CERT_INFO*>(data) = *static_cast<const CERT_CONTEXT*>(message)->pCertInfo;
  }
  *size = sizeof(CERT_INFO);
  SetLastError(fits || data == nullptr ? ERROR_SUCCESS : ERROR_MORE_DATA);
  return fits || data == nullptr;
}

SIM(WINBOOL, CryptMsgClose, HCRYPTMSG message) { return IsSigner(message) || ::CryptMsgClose(message); }
