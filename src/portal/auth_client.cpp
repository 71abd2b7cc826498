#include "portal/auth_client.h"

#include "log/log.h"
#include "state/kiosk_state.h"
#include "win32/clock.h"
#include "win32/http_handle.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <vector>

namespace kiosk::portal {
namespace {

using win32::HttpHandle;

constexpr int kPhaseTimeout = 15'000;
constexpr std::size_t kMaxChunk = 65536;

struct Target {
  std::wstring host;
  std::wstring path;
  INTERNET_PORT port = 0;
  bool secure = false;
};

std::wstring BaseUrl() {
  std::wstring url = state::ReadStateString(state::kAuthBaseUrl);
  if (url.empty()) {
    url = win32::ToWide(NORVANE_AUTH_BASE_URL);
  }
  while (!url.empty() && url.back() == L'/') {
    url.pop_back();
  }
  return url;
}

bool Crack(const std::wstring& url, Target& target) {
  std::array<wchar_t, 256> host{};
  std::array<wchar_t, 2048> path{};
  URL_COMPONENTS parts{};
  parts.dwStructSize = sizeof(parts);
  parts.lpszHostName = host.data();
  parts.dwHostNameLength = host.size();
  parts.lpszUrlPath = path.data();
  parts.dwUrlPathLength = path.size();
  if (WinHttpCrackUrl(url.c_str(), 0, 0, &parts) == 0 || host.front() == L'\0') {
    return false;
  }
  target = {host.data(), path.data(), parts.nPort, parts.nScheme == INTERNET_SCHEME_HTTPS};
  return true;
}

// The request handle, which a stop of the service closes under the call that waits on it: nothing else ends a synchronous
// WinHTTP call. Windows promises the effect for asynchronous requests only, so it is the last resort of a process that is
// about to end: no phase begins after a stop, and no new request is opened whose handle could take the same value.
class Request {
 public:
  explicit Request(HINTERNET handle) noexcept : handle_(handle), open_(handle) {
    if (handle != nullptr && win32::StopEvent() != nullptr) {
      RegisterWaitForSingleObject(&wait_, win32::StopEvent(), OnStop, this, INFINITE, WT_EXECUTEONLYONCE);
    }
  }
  Request(const Request&) = delete;
  Request& operator=(const Request&) = delete;
  ~Request() {
    if (wait_ != nullptr) {
      UnregisterWaitEx(wait_, INVALID_HANDLE_VALUE);  // returns when no OnStop is running any more
    }
    CloseOnce();
  }

  // Stays the same after a stop closed it: the calls then fail, as they should.
  [[nodiscard]] HINTERNET Get() const noexcept { return handle_; }

 private:
  void CloseOnce() noexcept { HttpHandle(open_.exchange(nullptr)).Reset(); }
  static void CALLBACK OnStop(void* self, BOOLEAN /*timedOut*/) noexcept { static_cast<Request*>(self)->CloseOnce(); }

  HINTERNET handle_;
  std::atomic<HINTERNET> open_;
  HANDLE wait_ = nullptr;
};

template <typename Option>
void SetOption(HINTERNET handle, DWORD option, Option value) noexcept {
  WinHttpSetOption(handle, option, &value, sizeof(value));
}

text::Secret Headers(const wchar_t* accept, const std::string& bearerToken) {
  text::Secret headers("Content-Type: application/json\r\nAccept: " + win32::ToNarrow(accept) + "\r\n");
  if (!bearerToken.empty()) {
    headers.Append("Authorization: Bearer ");
    headers.Append(bearerToken);
    headers.Append("\r\n");
  }
  return headers;
}

struct Limits {
  win32::Deadline deadline;
  const std::function<bool()>& goOn;
};

// Why the call must end now although Windows did not fail it, or 0.
DWORD CutShort(const Limits& limits) {
  if (win32::StopRequested() || (limits.goOn && !limits.goOn())) {
    return ERROR_WINHTTP_OPERATION_CANCELLED;
  }
  return limits.deadline.Passed() ? ERROR_WINHTTP_TIMEOUT : ERROR_SUCCESS;
}

bool Send(HINTERNET request, const wchar_t* accept, const std::string& body, const std::string& bearerToken,
          const Limits& limits) {
  if (const DWORD error = CutShort(limits); error != ERROR_SUCCESS) {
    SetLastError(error);
    return false;
  }
  const text::Secret headers = Headers(accept, bearerToken);
  std::wstring wide = win32::ToWide(headers.Get());
  const auto size = static_cast<DWORD>(body.size());
  void* data = body.empty() ? WINHTTP_NO_REQUEST_DATA : const_cast<char*>(body.data());
  const bool sent = WinHttpSendRequest(request, wide.c_str(), static_cast<DWORD>(-1), data, size, size, 0) != 0;
  const DWORD error = GetLastError();
  SecureZeroMemory(wide.data(), wide.size() * sizeof(wchar_t));
  SetLastError(error);
  return sent;
}

bool Receive(HINTERNET request, const Limits& limits, DWORD& status) {
  if (const DWORD error = CutShort(limits); error != ERROR_SUCCESS) {
    SetLastError(error);
    return false;
  }
  DWORD size = sizeof(status);
  return WinHttpReceiveResponse(request, nullptr) != 0 &&
         WinHttpQueryHeaders(request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status, &size,
                             nullptr) != 0;
}

// Reads until the end, the limit, a failure (what came so far is then the body), a stop or the deadline. Returns the error
// of the last two, 0 otherwise. A body that is complete stays so whatever happens at its end: it may hold a token that the
// portal hands out once.
DWORD ReadBody(HINTERNET request, std::size_t maxBody, const Limits& limits, text::Secret& body) {
  std::vector<char> chunk;
  while (body.Get().size() <= maxBody) {
    if (const DWORD error = CutShort(limits); error != ERROR_SUCCESS) {
      return error;
    }
    DWORD available = 0;
    if (WinHttpQueryDataAvailable(request, &available) == 0) {
      return CutShort(limits);
    }
    if (available == 0) {
      return ERROR_SUCCESS;
    }
    chunk.resize(std::min<std::size_t>(available, kMaxChunk));
    DWORD read = 0;
    const bool ok = WinHttpReadData(request, chunk.data(), static_cast<DWORD>(chunk.size()), &read) != 0 && read != 0;
    if (ok) {
      body.Append({chunk.data(), read});
    }
    SecureZeroMemory(chunk.data(), chunk.size());
    if (!ok) {
      return CutShort(limits);
    }
  }
  return ERROR_SUCCESS;
}

AuthReply Failed(std::string error) {
  AuthReply reply;
  reply.error = std::move(error);
  return reply;
}

AuthReply FailedWith(DWORD error) { return Failed("WinHTTP error " + std::to_string(error)); }

AuthReply Exchange(const Request& request, const wchar_t* accept, const std::string& body,
                   const std::string& bearerToken, std::size_t maxBody, const Limits& limits) {
  DWORD status = 0;
  if (!Send(request.Get(), accept, body, bearerToken, limits) || !Receive(request.Get(), limits, status)) {
    const DWORD error = GetLastError();
    const DWORD cutShort = CutShort(limits);
    return FailedWith(cutShort != ERROR_SUCCESS ? cutShort : error);
  }
  AuthReply reply;
  if (const DWORD error = ReadBody(request.Get(), maxBody, limits, reply.body); error != ERROR_SUCCESS) {
    return FailedWith(error);
  }
  reply.answered = 1;
  reply.status = static_cast<std::int32_t>(status);
  return reply;
}

}  // namespace

AuthReply AuthRequest(const wchar_t* method, const std::string& path, const std::string& body,
                      const std::string& bearerToken, std::size_t maxBody, const wchar_t* accept,
                      std::uint32_t deadline, const std::function<bool()>& goOn) {
  const Limits limits{win32::Deadline(deadline), goOn};
  if (win32::StopRequested()) {
    return FailedWith(ERROR_WINHTTP_OPERATION_CANCELLED);
  }
  Target target;
  if (!Crack(BaseUrl() + win32::ToWide(path), target)) {
    return Failed("unparseable AuthBaseUrl");
  }
  const std::wstring agent = L"NorvaneKiosk/" + win32::ToWide(log::kVersion);
  const HttpHandle session(WinHttpOpen(agent.c_str(), WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, WINHTTP_NO_PROXY_NAME,
                                       WINHTTP_NO_PROXY_BYPASS, 0));
  if (!session) {
    return Failed("WinHttpOpen failed");
  }
  WinHttpSetTimeouts(session.Get(), kPhaseTimeout, kPhaseTimeout, kPhaseTimeout, kPhaseTimeout);
  // The receive time-out counts single packets; this one bounds the wait for all response headers.
  SetOption(session.Get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, DWORD{kPhaseTimeout});
  // One try for each address of the host: more would each have the whole time-out again.
  SetOption(session.Get(), WINHTTP_OPTION_CONNECT_RETRIES, DWORD{1});
  const HttpHandle connection(WinHttpConnect(session.Get(), target.host.c_str(), target.port, 0));
  const Request request(connection
                            ? WinHttpOpenRequest(connection.Get(), method, target.path.c_str(), nullptr,
                                                 WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                                 target.secure ? WINHTTP_FLAG_SECURE : 0)
                            : nullptr);
  if (request.Get() == nullptr) {
    return Failed("cannot open the request");
  }
  // No certificate is ever presented, nor this computer's account, no cookie kept, and a redirect is an answer like any
  // other.
  WinHttpSetOption(request.Get(), WINHTTP_OPTION_CLIENT_CERT_CONTEXT, WINHTTP_NO_CLIENT_CERT_CONTEXT, 0);
  SetOption(request.Get(), WINHTTP_OPTION_REDIRECT_POLICY, DWORD{WINHTTP_OPTION_REDIRECT_POLICY_NEVER});
  SetOption(request.Get(), WINHTTP_OPTION_AUTOLOGON_POLICY, DWORD{WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH});
  SetOption(request.Get(), WINHTTP_OPTION_DISABLE_FEATURE, DWORD{WINHTTP_DISABLE_COOKIES});
  return Exchange(request, accept, body, bearerToken, maxBody, limits);
}

}  // namespace kiosk::portal
