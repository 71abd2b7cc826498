// WinHTTP, asynchronous as the service uses it: what a request answers, and how it ends when it is closed in each
// phase.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "tests/contract/own_proxy.h"
#include "win32/handle.h"

#include <winhttp.h>

#include <atomic>

namespace contract {
namespace {

using kiosk::win32::KernelHandle;

constexpr DWORD kPatience = 10'000;
// Sending to this computer takes next to no time.
constexpr DWORD kSending = 5'000;

// A request with what its callbacks tell.
class Call {
 public:
  explicit Call(std::uint16_t port, const wchar_t* host = L"127.0.0.1", DWORD access = WINHTTP_ACCESS_TYPE_NO_PROXY)
      : event_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    session_ = WinHttpOpen(L"NorvaneProof", access, nullptr, nullptr, WINHTTP_FLAG_ASYNC);
    Asked::Needs(session_ != nullptr, "a session of WinHTTP");
    WinHttpSetTimeouts(session_, 5000, 5000, 5000, 5000);
    WinHttpSetStatusCallback(session_, OnStatus, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0);
    connection_ = WinHttpConnect(session_, host, port, 0);
    request_ = WinHttpOpenRequest(connection_, L"GET", L"/proof", nullptr, nullptr, nullptr, 0);
    DWORD never = WINHTTP_OPTION_REDIRECT_POLICY_NEVER;
    WinHttpSetOption(request_, WINHTTP_OPTION_REDIRECT_POLICY, &never, sizeof(never));
    auto context = reinterpret_cast<DWORD_PTR>(this);
    WinHttpSetOption(request_, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof(context));
  }
  Call(const Call&) = delete;
  Call& operator=(const Call&) = delete;
  ~Call() {
    Close();
    WinHttpCloseHandle(connection_);
    WinHttpCloseHandle(session_);
  }

  // Closes the request and waits for its last word. False when that does not come.
  bool Close() {
    if (request_ == nullptr) {
      return true;
    }
    WinHttpCloseHandle(request_);
    request_ = nullptr;
    for (DWORD waited = 0; !closing_ && waited < kPatience; waited += 10) {
      Sleep(10);
    }
    return closing_;
  }
  // The error of the operation that was begun last; ERROR_SUCCESS when it ended well, WAIT_TIMEOUT when it does not
  // end.
  DWORD Finish(bool begun, DWORD patience = kPatience) {
    if (!begun) {
      return GetLastError();
    }
    return WaitForSingleObject(event_.Get(), patience) == WAIT_OBJECT_0 ? error_.load() : DWORD{WAIT_TIMEOUT};
  }
  bool Begin() {
    return WinHttpSendRequest(request_, nullptr, 0, nullptr, 0, 0, reinterpret_cast<DWORD_PTR>(this)) != 0;
  }
  DWORD Send() { return Finish(Begin(), kSending); }
  DWORD Receive() { return Finish(WinHttpReceiveResponse(request_, nullptr) != 0); }
  DWORD Status() {
    DWORD status = 0;
    DWORD size = sizeof(status);
    WinHttpQueryHeaders(request_, WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, &status, &size,
                        nullptr);
    return status;
  }
  // The whole body; `error` is that of the operation that ended it.
  std::string Body(DWORD& error) {
    std::string body;
    while ((error = Finish(WinHttpQueryDataAvailable(request_, nullptr) != 0)) == ERROR_SUCCESS && available_ != 0) {
      const DWORD wanted = available_;
      if ((error = Finish(WinHttpReadData(request_, buffer_, std::min<DWORD>(wanted, sizeof(buffer_)), nullptr) !=
                          0)) != ERROR_SUCCESS) {
        break;
      }
      body.append(buffer_, read_);
    }
    return body;
  }
  [[nodiscard]] HINTERNET Handle() const noexcept { return request_; }
  [[nodiscard]] DWORD Cancelled() const noexcept { return error_; }

 private:
  static void CALLBACK OnStatus(HINTERNET, DWORD_PTR context, DWORD status, void* information, DWORD size) {
    auto* const call = reinterpret_cast<Call*>(context);  // NOLINT(performance-no-int-to-ptr): it is one
    if (call == nullptr) {
      return;
    }
    switch (status) {
      case WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE:
      case WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE:
        break;
      case WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE:
        call->available_ = *static_cast<DWORD*>(information);
        break;
      case WINHTTP_CALLBACK_STATUS_READ_COMPLETE:
        call->read_ = size;
        break;
      case WINHTTP_CALLBACK_STATUS_REQUEST_ERROR:
        call->error_ = static_cast<WINHTTP_ASYNC_RESULT*>(information)->dwError;
        SetEvent(call->event_.Get());
        return;
      case WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING:
        call->closing_ = true;
        return;
      default:
        return;
    }
    call->error_ = ERROR_SUCCESS;
    SetEvent(call->event_.Get());
  }

  KernelHandle event_;
  HINTERNET session_ = nullptr;
  HINTERNET connection_ = nullptr;
  HINTERNET request_ = nullptr;
  std::atomic<DWORD> error_{ERROR_SUCCESS};
  std::atomic<DWORD> available_{0};
  std::atomic<DWORD> read_{0};
  std::atomic<bool> closing_{false};
  char buffer_[64];
};

constexpr char kSentWithTheAnswer[] = "Wine says that a request is sent when the answer begins";

void AnswersAreWhole(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kAnswers);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  asked.Same("the status", call.Status(), 200);
  wchar_t text[64];
  DWORD size = 1;
  asked.Fails("a number that does not fit",
              WinHttpQueryHeaders(call.Handle(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr, text,
                                  &size, nullptr) != 0,
              {ERROR_INSUFFICIENT_BUFFER});
  size = sizeof(text);
  asked.Fails("a header that is not there",
              WinHttpQueryHeaders(call.Handle(), WINHTTP_QUERY_RETRY_AFTER, nullptr, text, &size, nullptr) != 0,
              {ERROR_WINHTTP_HEADER_NOT_FOUND});
  DWORD error = 0;
  asked.True("the body", call.Body(error) == "0123456789");
  asked.Same("its end", error, ERROR_SUCCESS);
  asked.True("the last callback", call.Close());
}

void RedirectsAreNotFollowed(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kRedirects);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  asked.Same("the status", call.Status(), 302);
}

void CutBodiesAreErrors(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kBreaksOff);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  DWORD error = 0;
  const std::string body = call.Body(error);
  asked.True("no more than was sent", body == "01234" || body.empty());
  asked.True("an error, or the end", error == ERROR_SUCCESS || error >= WINHTTP_ERROR_BASE);
}

void ClosedWhileReceiving(Asked& asked) {
  asked.KnownWrong(Platform::kWine, kSentWithTheAnswer);
  const HttpServer server(HttpServer::Behaviour::kSilent);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.True("WinHttpReceiveResponse is begun", WinHttpReceiveResponse(call.Handle(), nullptr) != 0);
  Sleep(100);
  asked.True("the last callback", call.Close());
  asked.Tells("the operation was told", call.Cancelled());
}

void ClosedWhileReading(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kHalfABody);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  asked.Same("the half that is there", call.Finish(WinHttpQueryDataAvailable(call.Handle(), nullptr) != 0),
             ERROR_SUCCESS);
  // It may be read at once; then it is the wait for the other half that is closed.
  char half[5];
  if (call.Finish(WinHttpReadData(call.Handle(), half, sizeof(half), nullptr) != 0, 500) == ERROR_SUCCESS) {
    asked.True("WinHttpQueryDataAvailable is begun", WinHttpQueryDataAvailable(call.Handle(), nullptr) != 0);
  }
  asked.True("the last callback", call.Close());
}

void SilenceEndsInATimeOut(Asked& asked) {
  asked.KnownWrong(Platform::kWine, kSentWithTheAnswer);
  const HttpServer server(HttpServer::Behaviour::kSilent);
  Call call(server.Port());
  DWORD limit = 1'000;
  asked.True("the limit",
             WinHttpSetOption(call.Handle(), WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, &limit, sizeof(limit)) != 0);
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_WINHTTP_TIMEOUT);
}

// An open question: whether a session with the automatic proxy, as the service opens it, goes by the computer's default
// proxy. 0: it does, the server takes the request for a host that does not exist.
void AutomaticProxy(Asked& asked) {
  if (ThisPlatform() == Platform::kSimulation) {
    Asked::CannotRun("the simulated portal answers for every host");
  }
  const OwnProxy back;
  const HttpServer server(HttpServer::Behaviour::kAnswers);
  std::wstring name = L"127.0.0.1:" + std::to_wstring(server.Port());
  WINHTTP_PROXY_INFO proxy{WINHTTP_ACCESS_TYPE_NAMED_PROXY, name.data(), nullptr};
  Asked::Needs(WinHttpSetDefaultProxyConfiguration(&proxy) != 0, "a default proxy");
  Call call(80, L"proof.invalid", WINHTTP_ACCESS_TYPE_AUTOMATIC_PROXY);
  asked.Tells("a request for a host behind the default proxy", call.Finish(call.Begin()));
}

constexpr Case kCases[] = {
    {"answer", "an answer comes with status and whole body", AnswersAreWhole},
    {"redirect", "a redirect is told and not followed when so asked", RedirectsAreNotFollowed},
    {"cut", "of a body that breaks off no more than was sent is read", CutBodiesAreErrors},
    {"closed receiving", "a request that is closed while it waits for an answer ends", ClosedWhileReceiving},
    {"closed reading", "a request that is closed within a body ends", ClosedWhileReading},
    {"time-out", "silence ends after the time that was set", SilenceEndsInATimeOut},
    {"automatic proxy", "open: whether an automatic proxy goes by the computer's default proxy", AutomaticProxy},
};

}  // namespace

extern const Group kHttp;
const Group kHttp{"http", kCases};

}  // namespace contract
