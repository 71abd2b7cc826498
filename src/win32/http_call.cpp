#include "win32/http_call.h"

#include "win32/clock.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <vector>

namespace kiosk::win32 {
namespace {

constexpr int kPhaseTimeout = 15'000;
constexpr std::size_t kMaxChunk = 65536;

// The request handle, which a stop closes under the call that waits on it: nothing else ends a synchronous WinHTTP call.
// Windows promises the effect for asynchronous requests only, so it is the last resort of a process that is about to end: no
// phase begins after a stop, and no new request is opened whose handle could take the same value.
class Request {
 public:
  Request(HINTERNET handle, HANDLE stop) noexcept : handle_(handle), open_(handle) {
    if (handle != nullptr && stop != nullptr) {
      RegisterWaitForSingleObject(&wait_, stop, OnStop, this, INFINITE, WT_EXECUTEONLYONCE);
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

// What one call needs on its way.
struct Exchange {
  const HttpCall& call;
  HINTERNET request;
  Deadline deadline;

  // Why the call must end now although Windows did not fail it, or 0.
  [[nodiscard]] DWORD CutShort() const {
    if (call.stop != nullptr && WaitForSingleObject(call.stop, 0) == WAIT_OBJECT_0) {
      return ERROR_WINHTTP_OPERATION_CANCELLED;
    }
    if (call.goOn != nullptr && *call.goOn && !(*call.goOn)()) {
      return ERROR_WINHTTP_OPERATION_CANCELLED;
    }
    return deadline.Passed() ? ERROR_WINHTTP_TIMEOUT : ERROR_SUCCESS;
  }

  // The error of a phase that failed: the reason why the call had to end, if there is one.
  [[nodiscard]] DWORD PhaseError() const {
    const DWORD error = GetLastError();
    const DWORD cutShort = CutShort();
    return cutShort != ERROR_SUCCESS ? cutShort : error;
  }
};

DWORD Send(const Exchange& exchange) {
  if (const DWORD error = exchange.CutShort(); error != ERROR_SUCCESS) {
    return error;
  }
  const std::string_view body = exchange.call.body;
  const std::wstring_view headers = exchange.call.headers;
  const auto size = static_cast<DWORD>(body.size());
  void* data = body.empty() ? WINHTTP_NO_REQUEST_DATA : const_cast<char*>(body.data());
  return WinHttpSendRequest(exchange.request, headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : headers.data(),
                            static_cast<DWORD>(headers.size()), data, size, size, 0) != 0
             ? ERROR_SUCCESS
             : exchange.PhaseError();
}

DWORD Receive(const Exchange& exchange, DWORD& status) {
  if (const DWORD error = exchange.CutShort(); error != ERROR_SUCCESS) {
    return error;
  }
  DWORD size = sizeof(status);
  return WinHttpReceiveResponse(exchange.request, nullptr) != 0 &&
                 WinHttpQueryHeaders(exchange.request, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr,
                                     &status, &size, nullptr) != 0
             ? ERROR_SUCCESS
             : exchange.PhaseError();
}

// Reads until the end, the limit, a failure (what came so far is then the body), a stop or the deadline. Returns the error
// of the last two, 0 otherwise.
DWORD ReadBody(const Exchange& exchange) {
  std::vector<char> chunk;
  std::size_t total = 0;
  while (exchange.call.onBody && total <= exchange.call.maxBody) {
    if (const DWORD error = exchange.CutShort(); error != ERROR_SUCCESS) {
      return error;
    }
    DWORD available = 0;
    if (WinHttpQueryDataAvailable(exchange.request, &available) == 0) {
      return exchange.CutShort();
    }
    if (available == 0) {
      return ERROR_SUCCESS;
    }
    chunk.resize(std::min<std::size_t>(available, kMaxChunk));
    DWORD read = 0;
    const bool ok =
        WinHttpReadData(exchange.request, chunk.data(), static_cast<DWORD>(chunk.size()), &read) != 0 && read != 0;
    if (ok) {
      exchange.call.onBody({chunk.data(), read});
      total += read;
    }
    SecureZeroMemory(chunk.data(), chunk.size());
    if (!ok) {
      return exchange.CutShort();
    }
  }
  return ERROR_SUCCESS;
}

std::wstring RetryAfter(HINTERNET request) {
  std::array<wchar_t, 64> text{};
  DWORD size = sizeof(text);
  return WinHttpQueryHeaders(request, WINHTTP_QUERY_RETRY_AFTER, WINHTTP_HEADER_NAME_BY_INDEX, text.data(), &size,
                             WINHTTP_NO_HEADER_INDEX) != 0
             ? text.data()
             : L"";
}

void Restrict(HINTERNET request, const CERT_CONTEXT* certificate) noexcept {
  if (certificate != nullptr) {
    WinHttpSetOption(request, WINHTTP_OPTION_CLIENT_CERT_CONTEXT, const_cast<CERT_CONTEXT*>(certificate),
                     sizeof(CERT_CONTEXT));
  } else {
    WinHttpSetOption(request, WINHTTP_OPTION_CLIENT_CERT_CONTEXT, WINHTTP_NO_CLIENT_CERT_CONTEXT, 0);
  }
  SetOption(request, WINHTTP_OPTION_REDIRECT_POLICY, DWORD{WINHTTP_OPTION_REDIRECT_POLICY_NEVER});
  SetOption(request, WINHTTP_OPTION_AUTOLOGON_POLICY, DWORD{WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH});
  SetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, DWORD{WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_KEEP_ALIVE});
}

}  // namespace

bool CrackHttpUrl(const std::wstring& url, HttpTarget& target) {
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

HttpHandle OpenHttpSession(const std::wstring& userAgent) noexcept {
  HttpHandle session(WinHttpOpen(userAgent.c_str(), WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY, WINHTTP_NO_PROXY_NAME,
                                 WINHTTP_NO_PROXY_BYPASS, 0));
  if (session) {
    WinHttpSetTimeouts(session.Get(), kPhaseTimeout, kPhaseTimeout, kPhaseTimeout, kPhaseTimeout);
    // The receive time-out counts single packets; this one bounds the wait for all response headers.
    SetOption(session.Get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, DWORD{kPhaseTimeout});
    // One try for each address of the host: more would each have the whole time-out again.
    SetOption(session.Get(), WINHTTP_OPTION_CONNECT_RETRIES, DWORD{1});
  }
  return session;
}

HttpAnswer CallHttp(HINTERNET session, const HttpCall& call) {
  const Deadline deadline(call.deadline);
  const HttpTarget& target = *call.target;
  HttpAnswer answer;
  const HttpHandle connection(WinHttpConnect(session, target.host.c_str(), target.port, 0));
  const Request request(connection
                            ? WinHttpOpenRequest(connection.Get(), call.method, target.path.c_str(), nullptr,
                                                 WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                                 target.secure ? WINHTTP_FLAG_SECURE : 0)
                            : nullptr,
                        call.stop);
  if (request.Get() == nullptr) {
    answer.failedAt = HttpStep::kOpen;
    answer.error = GetLastError();
    return answer;
  }
  Restrict(request.Get(), call.certificate);
  const Exchange exchange{call, request.Get(), deadline};
  answer.error = Send(exchange);
  if (answer.error == ERROR_SUCCESS) {
    answer.error = Receive(exchange, answer.status);
  }
  if (answer.error == ERROR_SUCCESS) {
    answer.retryAfter = RetryAfter(request.Get());
    answer.error = ReadBody(exchange);
  }
  if (answer.error != ERROR_SUCCESS) {
    answer.failedAt = HttpStep::kExchange;
    answer.status = 0;
  }
  return answer;
}

}  // namespace kiosk::win32
