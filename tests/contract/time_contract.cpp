// Clocks, names of hosts, and the Windows Time service.
#include <winsock2.h>

#include <ws2tcpip.h>

#include "tests/contract/contract.h"
#include "win32/handle.h"

namespace contract {
namespace {

constexpr std::uint64_t kMillisecond = 10'000;  // of 100 ns

std::uint64_t Now() {
  FILETIME time;
  GetSystemTimeAsFileTime(&time);
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

std::uint64_t AsNumber(const SYSTEMTIME& parts) {
  FILETIME time;
  SystemTimeToFileTime(&parts, &time);
  return (std::uint64_t{time.dwHighDateTime} << 32) | time.dwLowDateTime;
}

void ClocksAgree(Asked& asked) {
  SYSTEMTIME utc;
  SYSTEMTIME local;
  const std::uint64_t before = Now();
  GetSystemTime(&utc);
  GetLocalTime(&local);
  const std::uint64_t after = Now();
  asked.True("GetSystemTime", AsNumber(utc) + kMillisecond >= before && AsNumber(utc) <= after);
  SYSTEMTIME converted;
  asked.True("SystemTimeToTzSpecificLocalTime", SystemTimeToTzSpecificLocalTime(nullptr, &utc, &converted) != 0);
  asked.True("GetLocalTime", AsNumber(local) - AsNumber(converted) < 1000 * kMillisecond);
}

void SleepTakesItsTime(Asked& asked) {
  ULONGLONG awake = 0;
  asked.True("QueryUnbiasedInterruptTime", QueryUnbiasedInterruptTime(&awake) != 0);
  const std::uint64_t ticks = GetTickCount64();
  Sleep(100);
  ULONGLONG later = 0;
  QueryUnbiasedInterruptTime(&later);
  // A tick may be 16 ms long.
  asked.True("ticks", GetTickCount64() - ticks >= 84);
  asked.True("time awake", later - awake >= 84 * kMillisecond);
}

int Resolve(const wchar_t* host, PADDRINFOW* found) {
  ADDRINFOW hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_DGRAM;
  return GetAddrInfoW(host, L"123", &hints, found);
}

void HostNames(Asked& asked) {
  WSADATA data;
  asked.Same("WSAStartup", WSAStartup(MAKEWORD(2, 2), &data), 0);
  const AtEnd cleanUp([] { WSACleanup(); });
  PADDRINFOW found = nullptr;
  asked.Same("an address in digits", Resolve(L"127.0.0.1", &found), 0);
  asked.True("its port", found != nullptr && reinterpret_cast<sockaddr_in*>(found->ai_addr)->sin_port == htons(123));
  if (found != nullptr) {
    FreeAddrInfoW(found);
  }
  // The top domain is reserved for names that do not exist (RFC 2606).
  asked.OneOf("a name that does not exist", Resolve(L"proof.invalid", &found),
              {WSAHOST_NOT_FOUND, WSATRY_AGAIN, WSANO_DATA, WSANO_RECOVERY});
}

void TimeServiceIsThere(Asked& asked) {
  const kiosk::win32::ServiceHandle manager(OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
  Asked::Needs(static_cast<bool>(manager), "the service manager");
  const kiosk::win32::ServiceHandle service(OpenServiceW(manager.Get(), L"W32Time", SERVICE_QUERY_STATUS));
  asked.KnownWrong(Platform::kWine, "Wine has no Windows Time service");
  asked.True("W32Time", static_cast<bool>(service));
  SERVICE_STATUS status{};
  asked.True("QueryServiceStatus", QueryServiceStatus(service.Get(), &status) != 0);
}

// [MS-W32T] 3.2.5.1 and an open question: what it answers, and when, without a running service.
void SynchronisationAnswers(Asked& asked) {
  const HMODULE library = LoadLibraryExW(L"w32time.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  Asked::Needs(library != nullptr, "the library of the Windows Time service");
  using SyncNow = DWORD(WINAPI*)(const wchar_t* computer, DWORD wait, DWORD flags);
  auto* const syncNow = reinterpret_cast<SyncNow>(reinterpret_cast<void*>(GetProcAddress(library, "W32TimeSyncNow")));
  Asked::Needs(syncNow != nullptr, "W32TimeSyncNow");
  asked.Tells("W32TimeSyncNow", syncNow(nullptr, 1, 1));
}

constexpr Case kCases[] = {
    {"clocks", "system time and local time are the same moment", ClocksAgree},
    {"sleep", "a sleep takes its time, on both counts", SleepTakesItsTime},
    {"hosts", "an address needs no server, and a reserved name is found nowhere", HostNames},
    {"service", "the Windows Time service is installed", TimeServiceIsThere},
    {"synchronisation", "open: what a synchronisation that is asked for answers", SynchronisationAnswers},
};

}  // namespace

extern const Group kTime;
const Group kTime{"time", kCases};

}  // namespace contract
