#include "address_text.h"
#include "check.h"
#include "exchange.h"
#include "network/ip_helper.h"
#include "state/folders.h"
#include "support_facts.h"
#include "win32/clock.h"
#include "win32/folder_entries.h"
#include "win32/grow.h"
#include "win32/owners.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <string_view>
#include <vector>

namespace kioskctl {
namespace {

using kiosk::win32::FolderEntry;
using kiosk::win32::ToNarrow;

constexpr std::uint64_t kEventsSince = 7ULL * 24 * 3600;  // s
constexpr int kMostEvents = 300;                          // of each log

const char* EventKind(WORD type) {
  return type == EVENTLOG_ERROR_TYPE ? "error" : type == EVENTLOG_WARNING_TYPE ? "warning" : "information";
}

// What tells of the service, of starts, stops and sleep, of updates and of the clock; in the log of the system all
// errors too. Other programs are nobody's business.
bool IsOfInterest(const EVENTLOGRECORD& record, std::wstring_view source, const std::string& text, bool ofSystem) {
  constexpr std::wstring_view kSources[] = {L"NorvaneKiosk",
                                            L"EventLog",
                                            L"User32",
                                            L"Microsoft-Windows-Kernel-Power",
                                            L"Microsoft-Windows-Time-Service",
                                            L"Microsoft-Windows-Power-Troubleshooter",
                                            L"Microsoft-Windows-WindowsUpdateClient"};
  return text.find("Norvane") != std::string::npos || (ofSystem && record.EventType == EVENTLOG_ERROR_TYPE) ||
         (ofSystem && std::find(std::begin(kSources), std::end(kSources), source) != std::end(kSources));
}

// "DOMAIN\user", of an account that this computer may not know any more: only Windows' own is told.
std::string AccountsLeftOut(std::wstring_view text) {
  const bool isAccount = std::count(text.begin(), text.end(), L'\\') == 1 && text.find_first_of(L":/") == text.npos &&
                         !text.starts_with(L"\\") && !text.starts_with(L"NT AUTHORITY\\");
  return isAccount ? "[account]" : ToNarrow(text);
}

std::string EventsOf(const wchar_t* name) {
  constexpr DWORD kLargestBuffer = 0x7ffff;  // that ReadEventLog takes: no record is longer
  constexpr std::uint64_t kFrom1601To1970 = 11'644'473'600;
  const std::uint64_t since =
      kiosk::win32::FileTimeNow() / kiosk::win32::kFileTimeSecond - kFrom1601To1970 - kEventsSince;
  const bool ofSystem = std::wstring_view(name) == L"System";
  std::string text = ToNarrow(name) + ", of the last 7 days, newest first\n";
  const kiosk::win32::EventLog log(OpenEventLogW(nullptr, name));
  std::vector<BYTE> buffer(kLargestBuffer);
  int shown = 0;
  while (shown < kMostEvents) {
    DWORD read = 0;
    DWORD needed = 0;
    if (!log || ReadEventLogW(log.Get(), EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ, 0, buffer.data(),
                              kLargestBuffer, &read, &needed) == 0) {
      const DWORD error = GetLastError();
      return text + (error == ERROR_HANDLE_EOF ? "" : "  cannot be read" + ErrorText(error) + "\n");
    }
    for (DWORD at = 0; at < read && shown < kMostEvents;) {
      const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
      if (record.TimeGenerated < since) {
        return text;
      }
      if (const std::string event = EventText(record, ofSystem); !event.empty()) {
        text += "  " + FileTimeText((record.TimeGenerated + kFrom1601To1970) * kiosk::win32::kFileTimeSecond) + " " +
                EventKind(record.EventType) + " " + event + "\n";
        ++shown;
      }
      at += record.Length;
    }
  }
  return text + "  and more\n";
}

const char* SessionState(WTS_CONNECTSTATE_CLASS state) {
  switch (state) {
    case WTSActive:
      return "active";
    case WTSConnected:
      return "connected";
    case WTSDisconnected:
      return "disconnected";
    case WTSListen:
      return "listens";
    default:
      return "in another state";
  }
}

std::string UserOfSession(DWORD session) {
  wchar_t* user = nullptr;
  DWORD size = 0;
  if (WTSQuerySessionInformationW(WTS_CURRENT_SERVER_HANDLE, session, WTSUserName, &user, &size) == 0) {
    return "unknown" + ErrorText(GetLastError());
  }
  const kiosk::win32::WtsMemory owner(user);
  return *user != L'\0' ? ToNarrow(user) : "nobody";
}

template <typename Entry>
std::string AddressesText(const char* what, const Entry* first) {
  std::string text = std::string("  ") + what;
  for (const Entry* each = first; each != nullptr; each = each->Next) {
    text += " " + AddressText(each->Address.lpSockaddr, static_cast<std::size_t>(each->Address.iSockaddrLength));
    if constexpr (requires { each->OnLinkPrefixLength; }) {
      text += "/" + std::to_string(each->OnLinkPrefixLength);
    }
  }
  return first != nullptr ? text + "\n" : std::string();
}

std::string AdapterText(const IP_ADAPTER_ADDRESSES& adapter) {
  return ToNarrow(adapter.FriendlyName) + " (" + ToNarrow(adapter.Description) + ") " + adapter.AdapterName +
         "\n  type " + std::to_string(adapter.IfType) + " (6 wired, 71 Wi-Fi, 24 loopback), " +
         (adapter.OperStatus == IfOperStatusUp ? "up" : "down, state " + std::to_string(adapter.OperStatus)) +
         (adapter.Dhcpv4Enabled != 0 ? ", DHCP\n" : ", no DHCP\n") +
         AddressesText("addresses", adapter.FirstUnicastAddress) +
         AddressesText("gateways", adapter.FirstGatewayAddress) +
         AddressesText("name servers", adapter.FirstDnsServerAddress);
}

std::string AdaptersText() {
  const kiosk::win32::Winsock winsock;
  std::vector<BYTE> buffer;
  const DWORD error = kiosk::win32::CallGrowing(
      buffer,
      [](BYTE* out, DWORD* size) -> DWORD {
        constexpr ULONG kFlags = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_INCLUDE_GATEWAYS;
        const ULONG result =
            GetAdaptersAddresses(AF_UNSPEC, kFlags, nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(out), size);
        return result == ERROR_BUFFER_OVERFLOW ? DWORD{ERROR_INSUFFICIENT_BUFFER} : result;
      },
      16'384);
  if (error != ERROR_SUCCESS) {
    return "the network adapters cannot be read" + ErrorText(error) + "\n";
  }
  std::string text;
  for (const auto* each = reinterpret_cast<const IP_ADAPTER_ADDRESSES*>(buffer.data()); each != nullptr;
       each = each->Next) {
    text += AdapterText(*each);
  }
  return text;
}

// Folders are listed before their content. Links are named and not followed.
std::string ListingOf(const std::wstring& folder, int levels) {
  std::vector<FolderEntry> entries = kiosk::win32::EntriesOf(folder);
  std::ranges::sort(entries, std::less(), &FolderEntry::path);
  std::string text;
  for (const FolderEntry& each : entries) {
    const bool isFolder = kiosk::win32::IsPlainFolder(each.attributes);
    text += ToNarrow(each.path) +
            (isFolder ? "\\\n" : "  " + std::to_string(each.size) + " bytes, " + FileTimeText(each.lastWrite) + "\n");
    text += isFolder && levels > 1 ? ListingOf(each.path, levels - 1) : "";
  }
  return text;
}

}  // namespace

std::string EventText(const EVENTLOGRECORD& record, bool ofSystem) {
  const auto* const source = reinterpret_cast<const wchar_t*>(&record + 1);
  const auto* part = reinterpret_cast<const wchar_t*>(reinterpret_cast<const BYTE*>(&record) + record.StringOffset);
  std::string text = ToNarrow(source) + " " + std::to_string(record.EventID & 0xffff);
  for (WORD i = 0; i < record.NumStrings; ++i) {
    const std::wstring_view each = part;
    text += " | " + AccountsLeftOut(each);
    part += each.size() + 1;
  }
  std::replace(text.begin(), text.end(), '\n', ' ');
  std::replace(text.begin(), text.end(), '\r', ' ');
  return IsOfInterest(record, source, text, ofSystem) ? text : std::string();
}

std::string EventFacts() { return EventsOf(L"System") + "\n" + EventsOf(L"Application"); }

std::string SessionFacts() {
  WTS_SESSION_INFOW* raw = nullptr;
  DWORD count = 0;
  if (WTSEnumerateSessionsW(WTS_CURRENT_SERVER_HANDLE, 0, 1, &raw, &count) == 0) {
    return "the sessions cannot be listed" + ErrorText(GetLastError()) + "\n";
  }
  const kiosk::win32::WtsMemory sessions(raw);
  std::string text = "console session " + std::to_string(WTSGetActiveConsoleSessionId()) + "\n";
  for (DWORD i = 0; i < count; ++i) {
    text += "session " + std::to_string(raw[i].SessionId) + ", " +
            ToNarrow(raw[i].pWinStationName != nullptr ? raw[i].pWinStationName : L"") + ", " +
            SessionState(raw[i].State) + ", " + UserOfSession(raw[i].SessionId) + "\n";
  }
  return text;
}

std::string NetworkFacts() { return AdaptersText() + "\ndefault proxy of services: " + ProxyText() + "\n"; }

std::string FileFacts() {
  const std::string text = ListingOf(kiosk::state::kLogRoot, 3) + ListingOf(kiosk::state::kKioskFolder, 2);
  return text.empty() ? "nothing can be listed below " + ToNarrow(kiosk::state::kLogRoot) + "\n" : text;
}

}  // namespace kioskctl
