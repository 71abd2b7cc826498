// Signatures of program files.
#include "tests/contract/contract.h"
#include "win32/handle.h"

#include <softpub.h>
#include <wincrypt.h>
#include <wintrust.h>

namespace contract {
namespace {

LONG Verify(const std::wstring& path) {
  WINTRUST_FILE_INFO file{};
  file.cbStruct = sizeof(file);
  file.pcwszFilePath = path.c_str();
  WINTRUST_DATA data{};
  data.cbStruct = sizeof(data);
  data.dwUIChoice = WTD_UI_NONE;
  data.fdwRevocationChecks = WTD_REVOKE_NONE;
  data.dwUnionChoice = WTD_CHOICE_FILE;
  data.dwStateAction = WTD_STATEACTION_VERIFY;
  data.dwProvFlags = WTD_CACHE_ONLY_URL_RETRIEVAL;
  data.pFile = &file;
  GUID action = WINTRUST_ACTION_GENERIC_VERIFY_V2;
  const LONG result = WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
  data.dwStateAction = WTD_STATEACTION_CLOSE;
  WinVerifyTrust(static_cast<HWND>(INVALID_HANDLE_VALUE), &action, &data);
  return result;
}

std::wstring OwnPath() {
  wchar_t path[1024]{};
  GetModuleFileNameW(nullptr, path, 1024);
  return path;
}

void UnsignedIsNotTrusted(Asked& asked) { asked.Same("this program", Verify(OwnPath()), TRUST_E_NOSIGNATURE); }

void UnsignedHasNoMessage(Asked& asked) {
  const std::wstring path = OwnPath();
  HCERTSTORE store = nullptr;
  HCRYPTMSG message = nullptr;
  const bool found =
      CryptQueryObject(CERT_QUERY_OBJECT_FILE, path.c_str(), CERT_QUERY_CONTENT_FLAG_PKCS7_SIGNED_EMBED,
                       CERT_QUERY_FORMAT_FLAG_BINARY, 0, nullptr, nullptr, nullptr, &store, &message, nullptr) != 0;
  asked.True("CryptQueryObject fails", !found);
  if (found) {
    CryptMsgClose(message);
    CertCloseStore(store, 0);
  }
}

void MessagesWantRoom(Asked& asked) {
  // A signed message without signers: what a file's signature is, at its smallest.
  CMSG_SIGNED_ENCODE_INFO info{};
  info.cbSize = sizeof(info);
  HCRYPTMSG message =
      CryptMsgOpenToEncode(PKCS_7_ASN_ENCODING | X509_ASN_ENCODING, 0, CMSG_SIGNED, &info, nullptr, nullptr);
  Asked::Needs(message != nullptr, "a message");
  const AtEnd close([&] { CryptMsgClose(message); });
  asked.True("CryptMsgUpdate", CryptMsgUpdate(message, reinterpret_cast<const BYTE*>("x"), 1, TRUE) != 0);
  DWORD size = 0;
  asked.True("its size", CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, nullptr, &size) != 0 && size > 1);
  BYTE small[1];
  size = sizeof(small);
  asked.Fails("too little room", CryptMsgGetParam(message, CMSG_CONTENT_PARAM, 0, small, &size) != 0,
              {ERROR_MORE_DATA});
}

constexpr Case kCases[] = {
    {"unsigned", "a program without a signature is not trusted, for that reason", UnsignedIsNotTrusted},
    {"no message", "a program without a signature has no signed message", UnsignedHasNoMessage},
    {"message sizes", "a part of a message that does not fit is an error", MessagesWantRoom},
};

}  // namespace

extern const Group kSignatures;
const Group kSignatures{"signatures", kCases};

}  // namespace contract
