#include "tools/proof/portal.h"

#include "json/serialise.h"
#include "text/text.h"
#include "win32/hash.h"
#include "win32/random.h"
#include "win32/thread.h"

#include <string_view>
#include <utility>

namespace proof {
namespace {

using kiosk::json::Value;
using kiosk::win32::LockGuard;
using kiosk::win32::Socket;

constexpr DWORD kPatience = 20'000;  // ms for a request to arrive
constexpr DWORD kDribble = 100;      // ms between two bytes

bool Send(SOCKET socket, std::string_view text) noexcept {
  while (!text.empty()) {
    const int sent = send(socket, text.data(), static_cast<int>(text.size()), 0);
    if (sent <= 0) {
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

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

std::string RandomText(std::size_t length, std::string_view signs) {
  std::string text(length, '\0');
  kiosk::win32::FillRandom(text.data(), length);
  for (char& sign : text) {
    sign = signs[static_cast<unsigned char>(sign) % signs.size()];
  }
  return text;
}

std::string Body(const char* name, const std::string& text) {
  Value body = Value::Object();
  body.Set(name, text);
  return kiosk::json::Serialise(body);
}

}  // namespace

bool Portal::Start(std::uint16_t port) {
  sockaddr_in address{};
  int size = sizeof(address);
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  changed_.Reset(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  listener_.Reset(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
  if (!changed_ || bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      listen(listener_.Get(), SOMAXCONN) != 0 ||
      getsockname(listener_.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    return false;
  }
  port_ = ntohs(address.sin_port);
  thread_ = kiosk::win32::StartThread([this]() noexcept { Serve(); });
  return static_cast<bool>(thread_);
}

Portal::~Portal() {
  if (thread_) {
    SetEvent(changed_.Get());
    listener_.Reset();
    WaitForSingleObject(thread_.Get(), INFINITE);
  }
}

void Portal::SetMode(Mode mode) {
  const LockGuard guard(lock_);
  state_.mode = mode;
  if (mode == Mode::kAnswers) {
    SetEvent(changed_.Get());
  } else {
    ResetEvent(changed_.Get());
  }
}

void Portal::Serve() noexcept {
  const SOCKET listener = listener_.Get();
  while (true) {
    const Socket client(accept(listener, nullptr, nullptr));
    if (!client) {
      return;
    }
    ServeOne(client.Get());
  }
}

void Portal::ServeOne(SOCKET client) {
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
  Change([&mode](State& state) {
    ++state.requests;
    mode = state.mode;
  });
  if (mode == Mode::kHangs) {
    WaitForSingleObject(changed_.Get(), INFINITE);
    return;
  }
  const Reply reply = Answer(request);
  const std::string head = "HTTP/1.1 " + std::to_string(reply.status) +
                           " Proof\r\nContent-Type: application/json\r\nConnection: close\r\nContent-Length: " +
                           std::to_string(reply.body.size()) + "\r\n\r\n";
  if (mode == Mode::kCuts) {
    static_cast<void>(Send(client, head + reply.body.substr(0, reply.body.size() / 2)));
    return;
  }
  bool sent = Send(client, head);
  for (std::size_t at = 0; mode == Mode::kDribbles && sent && at < reply.body.size(); ++at) {
    sent = Send(client, std::string_view(reply.body).substr(at, 1)) &&
           WaitForSingleObject(changed_.Get(), kDribble) == WAIT_TIMEOUT;
  }
  if (sent && mode == Mode::kAnswers && Send(client, reply.body)) {
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
  if (request.path == "/api/kiosk/branding/photos/" + kiosk::win32::Sha256Hex(state_.photo) &&
      kiosk::win32::Sha256Hex(request.bearer) == state_.tokenDigest) {
    return {200, state_.photo};
  }
  return {404, "{}"};
}

Portal::Reply Portal::AnswerPairing(const Request& request) {
  if (request.method == "POST") {
    state_.code = RandomText(8, "23456789ABCDEFGHJKMNPQRSTUVWXYZ");
    state_.claimed = false;
    return {201, Body("pairingCode", state_.code)};
  }
  if (state_.code.empty() || request.path != "/api/kiosk/pair/" + state_.code) {
    return {404, "{}"};
  }
  if (!state_.claimed) {
    return {202, "{}"};
  }
  std::string token = RandomText(48, "0123456789abcdef");
  state_.tokenDigest = kiosk::win32::Sha256Hex(token);
  state_.revoked = false;
  state_.code.clear();
  Reply reply{200, Body("deviceToken", token)};
  kiosk::text::Wipe(token);
  return reply;
}

Portal::Reply Portal::CheckIn(const Request& request) {
  if (request.bearer.empty() || kiosk::win32::Sha256Hex(request.bearer) != state_.tokenDigest) {
    return {401, Body("status", "unknown")};
  }
  if (state_.revoked) {
    return {401, Body("status", "revoked")};
  }
  ++state_.checkIns;
  Value body = state_.settings;
  body.Set("status", "enrolled");
  return {200, kiosk::json::Serialise(body)};
}

}  // namespace proof
