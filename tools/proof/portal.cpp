#include <winsock2.h>

#include "tools/proof/portal.h"

#include "json/serialise.h"
#include "text/text.h"
#include "win32/hash.h"
#include "win32/random.h"
#include "win32/thread.h"

#include <array>
#include <string_view>
#include <utility>

namespace proof {
namespace {

using kiosk::json::Value;
using kiosk::win32::LockGuard;

constexpr DWORD kPatience = 20'000;  // ms for a request to arrive
constexpr DWORD kDribble = 100;      // ms between two bytes

struct Socket {
  explicit Socket(SOCKET socket) noexcept : socket_(socket) {}
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;
  ~Socket() { closesocket(socket_); }

  [[nodiscard]] bool Send(std::string_view text) const noexcept {
    while (!text.empty()) {
      const int sent = send(socket_, text.data(), static_cast<int>(text.size()), 0);
      if (sent <= 0) {
        return false;
      }
      text.remove_prefix(static_cast<std::size_t>(sent));
    }
    return true;
  }

  SOCKET socket_;
};

// Head and body; empty when they do not come whole.
std::string ReadRequest(SOCKET client, std::size_t& bodyAt) {
  std::string text;
  char chunk[4096];
  std::size_t wanted = std::string::npos;
  while (text.size() < wanted) {
    const int got = recv(client, chunk, sizeof(chunk), 0);
    if (got <= 0) {
      return {};
    }
    text.append(chunk, static_cast<std::size_t>(got));
    if (const std::size_t end = text.find("\r\n\r\n"); wanted == std::string::npos && end != std::string::npos) {
      constexpr std::string_view kLength = "\r\nContent-Length: ";
      const std::size_t length = text.find(kLength);
      bodyAt = end + 4;
      wanted = bodyAt + (length < end ? std::strtoul(text.c_str() + length + kLength.size(), nullptr, 10) : 0);
    }
  }
  return text;
}

std::string RandomHex() {
  std::array<std::uint8_t, 24> bytes{};
  kiosk::win32::FillRandom(bytes.data(), bytes.size());
  return kiosk::text::Hex(bytes);
}

std::string RandomCode() {
  constexpr std::string_view kSigns = "23456789ABCDEFGHJKMNPQRSTUVWXYZ";
  std::array<std::uint8_t, 8> bytes{};
  kiosk::win32::FillRandom(bytes.data(), bytes.size());
  std::string code;
  for (const std::uint8_t byte : bytes) {
    code += kSigns[byte % kSigns.size()];
  }
  return code;
}

std::string Body(const char* name, const std::string& text) {
  Value body = Value::Object();
  body.Set(name, text);
  return kiosk::json::Serialise(body);
}

}  // namespace

bool Portal::Start(std::uint16_t port) {
  WSADATA data;
  sockaddr_in address{};
  int size = sizeof(address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  changed_.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!changed_ || WSAStartup(MAKEWORD(2, 2), &data) != 0) {
    return false;
  }
  listener_ = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  if (bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener_, SOMAXCONN) != 0 ||
      getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return false;
  }
  port_ = ntohs(address.sin_port);
  thread_ = kiosk::win32::StartThread([this]() noexcept { Serve(); });
  return static_cast<bool>(thread_);
}

Portal::~Portal() {
  if (thread_) {
    {
      const LockGuard guard(lock_);
      ending_ = true;
    }
    SetEvent(changed_.Get());
    closesocket(listener_);
    WaitForSingleObject(thread_.Get(), INFINITE);
  }
}

void Portal::SetMode(Mode mode) {
  const LockGuard guard(lock_);
  mode_ = mode;
  if (mode == Mode::kAnswers) {
    SetEvent(changed_.Get());
  } else {
    ResetEvent(changed_.Get());
  }
}

void Portal::Set(const char* member, Value value) {
  const LockGuard guard(lock_);
  settings_.Set(member, std::move(value));
}

std::string Portal::AddPhoto(std::string bytes) {
  const LockGuard guard(lock_);
  photo_ = std::move(bytes);
  photoDigest_ = kiosk::win32::Sha256Hex(photo_);
  return photoDigest_;
}

void Portal::Claim() {
  const LockGuard guard(lock_);
  claimed_ = true;
}

void Portal::Revoke() {
  const LockGuard guard(lock_);
  revoked_ = true;
}

int Portal::CheckIns() const {
  const LockGuard guard(lock_);
  return checkIns_;
}

int Portal::Requests() const {
  const LockGuard guard(lock_);
  return requests_;
}

std::string Portal::TokenDigest() const {
  const LockGuard guard(lock_);
  return tokenDigest_;
}

void Portal::KnowToken(const std::string& digest) {
  const LockGuard guard(lock_);
  tokenDigest_ = digest;
}

void Portal::Serve() noexcept {
  while (true) {
    const SOCKET client = accept(listener_, nullptr, nullptr);
    if (client == INVALID_SOCKET) {
      return;
    }
    ServeOne(client);
  }
}

void Portal::ServeOne(std::uintptr_t client) {
  const Socket socket(client);
  setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, reinterpret_cast<const char*>(&kPatience), sizeof(kPatience));
  setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, reinterpret_cast<const char*>(&kPatience), sizeof(kPatience));
  std::size_t bodyAt = 0;
  const std::string text = ReadRequest(client, bodyAt);
  if (text.empty()) {
    return;
  }
  Request request;
  const std::size_t blank = text.find(' ');
  request.method = text.substr(0, blank);
  request.path = text.substr(blank + 1, text.find(' ', blank + 1) - blank - 1);
  constexpr std::string_view kBearer = "\r\nAuthorization: Bearer ";
  if (const std::size_t at = text.find(kBearer); at < bodyAt) {
    request.bearer = text.substr(at + kBearer.size(), text.find('\r', at + 2) - at - kBearer.size());
  }
  Mode mode{};
  {
    const LockGuard guard(lock_);
    ++requests_;
    mode = mode_;
  }
  if (mode == Mode::kHangs) {
    WaitForSingleObject(changed_.Get(), INFINITE);
    return;
  }
  const Reply reply = Answer(request);
  const std::string head = "HTTP/1.1 " + std::to_string(reply.status) +
                           " Proof\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: " +
                           std::to_string(reply.body.size()) + "\r\n\r\n";
  if (mode == Mode::kCuts) {
    static_cast<void>(socket.Send(head + reply.body.substr(0, reply.body.size() / 2)));
    return;
  }
  bool sent = socket.Send(head);
  for (std::size_t at = 0; mode == Mode::kDribbles && sent && at < reply.body.size(); ++at) {
    sent = socket.Send(std::string_view(reply.body).substr(at, 1)) &&
           WaitForSingleObject(changed_.Get(), kDribble) == WAIT_TIMEOUT;
  }
  if (sent && mode == Mode::kAnswers && socket.Send(reply.body)) {
    shutdown(client, SD_SEND);
  }
}

Portal::Reply Portal::Answer(const Request& request) {
  const LockGuard guard(lock_);
  if (request.path.starts_with("/api/kiosk/pair")) {
    return AnswerPairing(request);
  }
  if (request.path == "/api/kiosk/check-in") {
    return CheckIn(request);
  }
  if (!photoDigest_.empty() && request.path == "/api/kiosk/branding/photos/" + photoDigest_ &&
      kiosk::win32::Sha256Hex(request.bearer) == tokenDigest_) {
    return {200, photo_};
  }
  return {404, "{}"};
}

Portal::Reply Portal::AnswerPairing(const Request& request) {
  if (request.method == "POST") {
    code_ = RandomCode();
    claimed_ = false;
    return {201, Body("pairingCode", code_)};
  }
  if (code_.empty() || request.path != "/api/kiosk/pair/" + code_) {
    return {404, "{}"};
  }
  if (!claimed_) {
    return {202, "{}"};
  }
  std::string token = RandomHex();
  tokenDigest_ = kiosk::win32::Sha256Hex(token);
  revoked_ = false;
  code_.clear();
  Reply reply{200, Body("deviceToken", token)};
  kiosk::text::Wipe(token);
  return reply;
}

Portal::Reply Portal::CheckIn(const Request& request) {
  if (request.bearer.empty() || kiosk::win32::Sha256Hex(request.bearer) != tokenDigest_) {
    return {401, Body("status", "unknown")};
  }
  if (revoked_) {
    return {401, Body("status", "revoked")};
  }
  ++checkIns_;
  Value body = settings_;
  body.Set("status", "enrolled");
  return {200, kiosk::json::Serialise(body)};
}

}  // namespace proof
