#include "timesync/sntp_query.h"

#include "win32/clock.h"
#include "win32/handle.h"
#include "win32/stop.h"
#include "win32/thread.h"

#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <array>
#include <memory>

namespace kiosk::timesync {
namespace {

constexpr wchar_t kPort[] = L"123";
constexpr DWORD kResolveTimeout = 15'000;
constexpr DWORD kReceiveTimeout = 5'000;

struct SocketTraits {
  using Value = SOCKET;
  static Value Invalid() noexcept { return INVALID_SOCKET; }
  static void Free(Value value) noexcept { closesocket(value); }
};
using Socket = win32::Owner<SocketTraits>;

struct SocketEventTraits : win32::NullIsNone<WSAEVENT> {  // as WSA_INVALID_EVENT is
  static void Free(Value value) noexcept { WSACloseEvent(value); }
};
using SocketEvent = win32::Owner<SocketEventTraits>;

// Winsock is counted: every scope that uses it has a reference of its own.
class Winsock {
 public:
  Winsock() noexcept : started_(WSAStartup(MAKEWORD(2, 2), &data_) == 0) {}
  Winsock(const Winsock&) = delete;
  Winsock& operator=(const Winsock&) = delete;
  ~Winsock() {
    if (started_) {
      WSACleanup();
    }
  }
  explicit operator bool() const noexcept { return started_; }

 private:
  WSADATA data_{};
  bool started_;
};

struct Resolution {
  std::wstring server;
  bool found = false;
  sockaddr_in address{};
};

void ResolveNow(Resolution& resolution) noexcept {
  const Winsock winsock;
  ADDRINFOW wanted{};
  wanted.ai_family = AF_INET;
  wanted.ai_socktype = SOCK_DGRAM;
  wanted.ai_protocol = IPPROTO_UDP;
  ADDRINFOW* results = nullptr;
  if (!winsock || GetAddrInfoW(resolution.server.c_str(), kPort, &wanted, &results) != 0) {
    return;
  }
  if (results != nullptr && results->ai_addrlen >= sizeof(sockaddr_in)) {
    resolution.address = *reinterpret_cast<const sockaddr_in*>(results->ai_addr);
    resolution.found = true;
  }
  FreeAddrInfoW(results);
}

// Nothing ends a look-up in progress, so a thread makes it, which may be left behind with what it works on.
std::optional<sockaddr_in> Resolve(const std::wstring& server, DWORD most) {
  const auto resolution = std::make_shared<Resolution>();
  resolution->server = server;
  const win32::KernelHandle thread =
      win32::StartThread([resolution]() noexcept { ResolveNow(*resolution); }, win32::kSmallStack);
  if (!thread || win32::WaitOrStop(thread.Get(), std::min(kResolveTimeout, most)) != win32::WaitResult::kSignaled ||
      !resolution->found) {
    return std::nullopt;
  }
  return resolution->address;
}

Milliseconds Now() noexcept { return static_cast<Milliseconds>(win32::FileTimeNow() / win32::kFileTimeMillisecond); }

}  // namespace

std::optional<Milliseconds> QuerySntp(const std::wstring& server, DWORD most) {
  const win32::Deadline deadline(most);
  const Winsock winsock;
  const std::optional<sockaddr_in> address = winsock ? Resolve(server, most) : std::nullopt;
  if (!address) {
    return std::nullopt;
  }
  const Socket socket(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
  const SocketEvent readable(WSACreateEvent());
  // A connected socket takes datagrams of that address and port alone, and hears at once that nobody listens there.
  if (!socket || !readable ||
      connect(socket.Get(), reinterpret_cast<const sockaddr*>(&*address), sizeof(*address)) != 0 ||
      WSAEventSelect(socket.Get(), readable.Get(), FD_READ) != 0) {
    return std::nullopt;
  }
  const auto request = SntpRequest();
  const Milliseconds sent = Now();
  if (send(socket.Get(), reinterpret_cast<const char*>(request.data()), static_cast<int>(request.size()), 0) !=
          static_cast<int>(request.size()) ||
      win32::WaitOrStop(readable.Get(), std::min(kReceiveTimeout, deadline.Left())) != win32::WaitResult::kSignaled) {
    return std::nullopt;
  }
  // One byte more than a packet has, so that a longer datagram shows.
  std::array<std::uint8_t, kSntpPacketSize + 1> datagram{};
  const int size = recv(socket.Get(), reinterpret_cast<char*>(datagram.data()), static_cast<int>(datagram.size()), 0);
  const Milliseconds received = Now();
  const std::optional<SntpTimes> times =
      ParseSntpReply(std::span(datagram).first(size > 0 ? static_cast<std::size_t>(size) : 0));
  return times ? std::optional(ClockOffset(sent, *times, received)) : std::nullopt;
}

}  // namespace kiosk::timesync
