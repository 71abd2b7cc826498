#include "win32/http_call.h"

#include "win32/clock.h"
#include "win32/handle.h"

#include <algorithm>
#include <array>
#include <memory>
#include <optional>
#include <vector>

namespace kiosk::win32 {
namespace {

constexpr int kPhaseTimeout = 15'000;
constexpr std::size_t kMaxChunk = 65536;
// How long a body that is already here may take to be read when the call is to end.
constexpr DWORD kLastLook = 100;

// What the calling thread shares with WinHTTP, which reads and fills it from threads of its own and goes on for some
// time after the request was closed (up to a phase's time-out). So it belongs to both: WinHTTP has a reference of its
// own as the request's context, and gives it back with its last callback.
struct Shared {
  explicit Shared(const HttpCall& call) : headers(call.headers), body(call.body) {}
  Shared(const Shared&) = delete;
  Shared& operator=(const Shared&) = delete;
  ~Shared() {
    SecureZeroMemory(headers.data(), headers.size() * sizeof(wchar_t));
    SecureZeroMemory(body.data(), body.size());
    SecureZeroMemory(chunk.data(), chunk.size());
  }

  std::wstring headers;
  std::string body;
  std::vector<char> chunk;
  // How the operation ended; written before `done` (auto reset) is set.
  DWORD error = ERROR_SUCCESS;
  DWORD count = 0;  // bytes that are available, or that were read
  KernelHandle done{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};
using SharedPtr = std::shared_ptr<Shared>;

// Runs on any thread, on the calling one too, inside the call that began the operation or closed the request.
void CALLBACK OnStatus(HINTERNET /*request*/, DWORD_PTR context, DWORD status, void* information, DWORD size) noexcept {
  auto* const theirs = reinterpret_cast<SharedPtr*>(context);  // NOLINT(performance-no-int-to-ptr): it is one
  if (theirs == nullptr) {
    return;
  }
  if (status == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
    const std::unique_ptr<SharedPtr> last(theirs);
    return;
  }
  Shared& shared = **theirs;
  shared.error = ERROR_SUCCESS;
  switch (status) {
    case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
      shared.error = static_cast<const WINHTTP_ASYNC_RESULT*>(information)->dwError;
      break;
    case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
      shared.count = *static_cast<const DWORD*>(information);
      break;
    case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
      shared.count = size;
      break;
    default:
      break;
  }
  SetEvent(shared.done.Get());
}

template <typename Option>
bool SetOption(HINTERNET handle, DWORD option, Option value) noexcept {
  return WinHttpSetOption(handle, option, &value, sizeof(value)) != 0;
}

// No certificate but the given one, no sign-in with this computer's account, no cookies, no connection for another
// call, no redirects: a token in the headers would go along. False when redirects cannot be ruled out.
bool Restrict(HINTERNET request, const CERT_CONTEXT* certificate) noexcept {
  if (certificate != nullptr) {
    WinHttpSetOption(request, WINHTTP_OPTION_CLIENT_CERT_CONTEXT, const_cast<CERT_CONTEXT*>(certificate),
                     sizeof(CERT_CONTEXT));
  } else {
    WinHttpSetOption(request, WINHTTP_OPTION_CLIENT_CERT_CONTEXT, WINHTTP_NO_CLIENT_CERT_CONTEXT, 0);
  }
  SetOption(request, WINHTTP_OPTION_AUTOLOGON_POLICY, DWORD{WINHTTP_AUTOLOGON_SECURITY_LEVEL_HIGH});
  SetOption(request, WINHTTP_OPTION_DISABLE_FEATURE, DWORD{WINHTTP_DISABLE_COOKIES | WINHTTP_DISABLE_KEEP_ALIVE});
  return SetOption(request, WINHTTP_OPTION_REDIRECT_POLICY, DWORD{WINHTTP_OPTION_REDIRECT_POLICY_NEVER});
}

// One request. All of it is called on one thread, which alone closes the handles.
class Exchange {
 public:
  explicit Exchange(const HttpCall& call)
      : call_(call), deadline_(call.deadline), shared_(std::make_shared<Shared>(call)) {}

  // False when the request cannot be opened; the last error says why.
  bool Open(HINTERNET session) {
    const HttpTarget& target = *call_.target;
    connection_.Reset(WinHttpConnect(session, target.host.c_str(), target.port, 0));
    request_.Reset(connection_ ? WinHttpOpenRequest(connection_.Get(), call_.method, target.path.c_str(), nullptr,
                                                    WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES,
                                                    target.secure ? WINHTTP_FLAG_SECURE : 0)
                               : nullptr);
    return request_ && shared_->done && Restrict(request_.Get(), call_.certificate) && Share();
  }

  DWORD Send() {
    if (const DWORD error = CutShort(); error != ERROR_SUCCESS) {
      return error;
    }
    const auto size = static_cast<DWORD>(shared_->body.size());
    return Reason(End(WinHttpSendRequest(
        request_.Get(), shared_->headers.empty() ? WINHTTP_NO_ADDITIONAL_HEADERS : shared_->headers.c_str(),
        static_cast<DWORD>(shared_->headers.size()), size != 0 ? shared_->body.data() : WINHTTP_NO_REQUEST_DATA, size,
        size, context_)));
  }

  DWORD Receive(DWORD& status) {
    if (const DWORD error = CutShort(); error != ERROR_SUCCESS) {
      return error;
    }
    if (const DWORD error = End(WinHttpReceiveResponse(request_.Get(), nullptr)); error != ERROR_SUCCESS) {
      return Reason(error);
    }
    DWORD size = sizeof(status);
    return WinHttpQueryHeaders(request_.Get(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status,
                               &size, nullptr) != 0
               ? ERROR_SUCCESS
               : Reason(GetLastError());
  }

  [[nodiscard]] std::wstring RetryAfter() const {
    std::array<wchar_t, 64> text{};
    DWORD size = sizeof(text);
    return WinHttpQueryHeaders(request_.Get(), WINHTTP_QUERY_RETRY_AFTER, WINHTTP_HEADER_NAME_BY_INDEX, text.data(),
                               &size, WINHTTP_NO_HEADER_INDEX) != 0
               ? text.data()
               : L"";
  }

  // Reads until the end, the limit, a failure (what came so far is then the body), or until the call is to end. Returns
  // why it had to end, 0 otherwise.
  DWORD ReadBody() {
    std::vector<char>& chunk = shared_->chunk;
    std::optional<Deadline> lastLook;
    for (std::size_t total = 0; call_.onBody && total <= call_.maxBody; total += shared_->count) {
      if (!lastLook && CutShort() != ERROR_SUCCESS) {
        lastLook.emplace(kLastLook);
      }
      if (End(WinHttpQueryDataAvailable(request_.Get(), nullptr), lastLook) != ERROR_SUCCESS) {
        return CutShort();
      }
      if (shared_->count == 0) {
        return ERROR_SUCCESS;
      }
      // No more than is there: WinHTTP may wait for the rest of what it was asked for.
      chunk.resize(std::min<std::size_t>(shared_->count, kMaxChunk));
      const auto size = static_cast<DWORD>(chunk.size());
      if (End(WinHttpReadData(request_.Get(), chunk.data(), size, nullptr), lastLook) != ERROR_SUCCESS ||
          shared_->count == 0) {
        return CutShort();
      }
      call_.onBody({chunk.data(), shared_->count});
      SecureZeroMemory(chunk.data(), chunk.size());
    }
    return ERROR_SUCCESS;
  }

 private:
  // Gives WinHTTP its reference. Without a context its callbacks mean nothing.
  bool Share() {
    constexpr DWORD kWanted = WINHTTP_CALLBACK_FLAG_ALL_COMPLETIONS | WINHTTP_CALLBACK_FLAG_HANDLES;
    if (WinHttpSetStatusCallback(request_.Get(), OnStatus, kWanted, 0) == WINHTTP_INVALID_STATUS_CALLBACK) {
      return false;
    }
    auto theirs = std::make_unique<SharedPtr>(shared_);
    context_ = reinterpret_cast<DWORD_PTR>(theirs.get());
    if (!SetOption(request_.Get(), WINHTTP_OPTION_CONTEXT_VALUE, context_)) {
      return false;
    }
    static_cast<void>(theirs.release());
    return true;
  }

  // Why the call must end now although Windows did not fail it, or 0.
  [[nodiscard]] DWORD CutShort() const noexcept {
    for (const HANDLE event : {call_.stop, call_.end}) {
      if (event != nullptr && WaitForSingleObject(event, 0) == WAIT_OBJECT_0) {
        return ERROR_WINHTTP_OPERATION_CANCELLED;
      }
    }
    return deadline_.Passed() ? ERROR_WINHTTP_TIMEOUT : ERROR_SUCCESS;
  }

  // The error of a phase that failed: the reason why the call had to end, if there is one.
  [[nodiscard]] DWORD Reason(DWORD error) const noexcept {
    const DWORD cutShort = error != ERROR_SUCCESS ? CutShort() : ERROR_SUCCESS;
    return cutShort != ERROR_SUCCESS ? cutShort : error;
  }

  // The end of the operation that was begun: its error, or that of a call that is to end before. An operation that is
  // over at the same moment counts as over. With `lastLook` the call is to end already, and only that time is left.
  [[nodiscard]] DWORD End(BOOL begun, const std::optional<Deadline>& lastLook = std::nullopt) const noexcept {
    if (begun == 0) {
      return GetLastError();
    }
    std::array<HANDLE, 3> objects = {shared_->done.Get()};
    DWORD count = 1;
    for (const HANDLE event : {call_.stop, call_.end}) {
      if (event != nullptr && !lastLook) {
        objects[count++] = event;
      }
    }
    const DWORD left = lastLook ? lastLook->Left() : deadline_.Left();
    switch (WaitForMultipleObjects(count, objects.data(), FALSE, left)) {
      case WAIT_OBJECT_0:
        return shared_->error;
      case WAIT_TIMEOUT:
        return ERROR_WINHTTP_TIMEOUT;
      default:
        return ERROR_WINHTTP_OPERATION_CANCELLED;
    }
  }

  const HttpCall& call_;
  Deadline deadline_;
  SharedPtr shared_;
  DWORD_PTR context_ = 0;
  // The request is closed before its connection.
  HttpHandle connection_;
  HttpHandle request_;
};

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
                                 WINHTTP_NO_PROXY_BYPASS, WINHTTP_FLAG_ASYNC));
  if (session) {
    WinHttpSetTimeouts(session.Get(), kPhaseTimeout, kPhaseTimeout, kPhaseTimeout, kPhaseTimeout);
    // The receive time-out counts single packets; this one bounds the wait for all response headers.
    SetOption(session.Get(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, DWORD{kPhaseTimeout});
  }
  return session;
}

HttpAnswer CallHttp(HINTERNET session, const HttpCall& call) {
  HttpAnswer answer;
  Exchange exchange(call);
  if (!exchange.Open(session)) {
    answer.failedAt = HttpStep::kOpen;
    answer.error = GetLastError();
    return answer;
  }
  answer.error = exchange.Send();
  if (answer.error == ERROR_SUCCESS) {
    answer.error = exchange.Receive(answer.status);
  }
  if (answer.error == ERROR_SUCCESS) {
    answer.retryAfter = exchange.RetryAfter();
    answer.error = exchange.ReadBody();
  }
  if (answer.error != ERROR_SUCCESS) {
    answer.failedAt = HttpStep::kExchange;
    answer.status = 0;
  }
  return answer;
}

}  // namespace kiosk::win32
