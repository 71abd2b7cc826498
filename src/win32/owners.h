// Owners of what single parts of Windows hand out. Those that most files need are in win32/handle.h.
#pragma once

#include "win32/handle.h"

#include <lm.h>
#include <ntsecapi.h>
#include <wincrypt.h>
#include <winhttp.h>
#include <wtsapi32.h>

namespace kiosk::win32 {

// What the account calls allocate for their caller.
struct NetBufferTraits : NullIsNone<void*> {
  static void Free(Value value) noexcept { NetApiBufferFree(value); }
};
// What the session calls allocate.
struct WtsMemoryTraits : NullIsNone<void*> {
  static void Free(Value value) noexcept { WTSFreeMemory(value); }
};
// The local security authority's.
struct LsaHandleTraits : NullIsNone<LSA_HANDLE> {
  static void Free(Value value) noexcept { LsaClose(value); }
};
struct LsaMemoryTraits : NullIsNone<void*> {
  static void Free(Value value) noexcept { LsaFreeMemory(value); }
};
struct CertStoreTraits : NullIsNone<HCERTSTORE> {
  static void Free(Value value) noexcept { CertCloseStore(value, 0); }
};
struct CryptMessageTraits : NullIsNone<HCRYPTMSG> {
  static void Free(Value value) noexcept { CryptMsgClose(value); }
};
struct CertificateTraits : NullIsNone<const CERT_CONTEXT*> {
  static void Free(Value value) noexcept { CertFreeCertificateContext(value); }
};
// A WinHTTP session, connection or request.
struct HttpHandleTraits : NullIsNone<HINTERNET> {
  static void Free(Value value) noexcept { WinHttpCloseHandle(value); }
};
struct EventLogTraits : NullIsNone<HANDLE> {
  static void Free(Value value) noexcept { CloseEventLog(value); }
};
// A text that WinHTTP's proxy calls allocate.
struct GlobalTextTraits : NullIsNone<wchar_t*> {
  static void Free(Value value) noexcept { GlobalFree(value); }
};
struct LibraryTraits : NullIsNone<HMODULE> {
  static void Free(Value value) noexcept { FreeLibrary(value); }
};
// To whom entries of the event log are given.
struct EventSourceTraits : NullIsNone<HANDLE> {
  static void Free(Value value) noexcept { DeregisterEventSource(value); }
};

using NetBuffer = Owner<NetBufferTraits>;
using WtsMemory = Owner<WtsMemoryTraits>;
using LsaHandle = Owner<LsaHandleTraits>;
using LsaMemory = Owner<LsaMemoryTraits>;
using CertStore = Owner<CertStoreTraits>;
using CryptMessage = Owner<CryptMessageTraits>;
using Certificate = Owner<CertificateTraits>;
using HttpHandle = Owner<HttpHandleTraits>;
using EventLog = Owner<EventLogTraits>;
using GlobalText = Owner<GlobalTextTraits>;
using Library = Owner<LibraryTraits>;
using EventSource = Owner<EventSourceTraits>;

}  // namespace kiosk::win32
