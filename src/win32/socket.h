// Sockets, and the names of hosts.
#pragma once

#include <winsock2.h>

#include <ws2tcpip.h>

#include "win32/handle.h"

namespace kiosk::win32 {

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

struct SocketTraits {
  using Value = SOCKET;
  static Value Invalid() noexcept { return INVALID_SOCKET; }
  static void Free(Value value) noexcept { closesocket(value); }
};
using Socket = win32::Owner<SocketTraits>;

struct AddressListTraits : NullIsNone<ADDRINFOW*> {
  static void Free(Value value) noexcept { FreeAddrInfoW(value); }
};
using AddressList = Owner<AddressListTraits>;

}  // namespace kiosk::win32
