// WinHTTP, asynchronous as the service uses it: what a request answers, and how it ends when it is closed in each
// phase.
#include "tests/contract/contract.h"
#include "tests/contract/hand.h"
#include "win32/handle.h"

#include <winhttp.h>

#include <atomic>

namespace contract {
namespace {

using kiosk::win32::KernelHandle;

constexpr DWORD kPatience = 20'000;

// A request with what its callbacks tell.
class Call {
 public:
  explicit Call(std::uint16_t port) : event_(CreateEventW(nullptr, FALSE, FALSE, nullptr)) {
    session_ = WinHttpOpen(L"NorvaneProof", WINHTTP_ACCESS_TYPE_NO_PROXY, nullptr, nullptr, WINHTTP_FLAG_ASYNC);
    Asked::Needs(session_ != nullptr, "a session of WinHTTP");
    WinHttpSetTimeouts(session_, 5000, 5000, 5000, 5000);
    WinHttpSetStatusCallback(session_, OnStatus, WINHTTP_CALLBACK_FLAG_ALL_NOTIFICATIONS, 0);
    connection_ = WinHttpConnect(session_, L"127.0.0.1", port, 0);
    request_ = WinHttpOpenRequest(connection_, L"GET", L"/proof", nullptr, nullptr, nullptr, 0);
    DWORD never = WINHTTP_OPTION_REDIRECT_POLICY_NEVER;
    WinHttpSetOption(request_, WINHTTP_OPTION_REDIRECT_POLICY, &never, sizeof(never));
    auto* self = this;
    WinHttpSetOption(request_, WINHTTP_OPTION_CONTEXT_VALUE, &self, sizeof(self));
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
  DWORD Finish(bool begun) {
    if (!begun) {
      return GetLastError();
    }
    return WaitForSingleObject(event_.Get(), kPatience) == WAIT_OBJECT_0 ? error_.load() : DWORD{WAIT_TIMEOUT};
  }
  DWORD Send() {
    return Finish(WinHttpSendRequest(request_, nullptr, 0, nullptr, 0, 0, reinterpret_cast<DWORD_PTR>(this)) != 0);
  }
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
    auto* const call = reinterpret_cast<Call*>(context);
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

void AnswersAreWhole(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kAnswers);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  asked.Same("the status", call.Status(), 200);
  wchar_t text[64];
  DWORD size = 1;
  asked.Fails("a number that does not fit",
              WinHttpQueryHeaders(call.Handle(), WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER, nullptr,
                                  text, &size, nullptr) != 0,
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

// An open question: what is told of an operation whose request is closed under it.
void ClosedWhileReceiving(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kSilent);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.True("WinHttpReceiveResponse is begun", WinHttpReceiveResponse(call.Handle(), nullptr) != 0);
  Sleep(100);
  asked.True("the last callback", call.Close());
  asked.OneOf("what the operation was told", call.Cancelled(), {ERROR_SUCCESS, ERROR_WINHTTP_OPERATION_CANCELLED});
}

void ClosedWhileReading(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kHalfABody);
  Call call(server.Port());
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_SUCCESS);
  asked.Same("the half that is there", call.Finish(WinHttpQueryDataAvailable(call.Handle(), nullptr) != 0),
             ERROR_SUCCESS);
  asked.True("the last callback", call.Close());
}

void SilenceEndsInATimeOut(Asked& asked) {
  const HttpServer server(HttpServer::Behaviour::kSilent);
  Call call(server.Port());
  WinHttpSetTimeouts(call.Handle(), 1000, 1000, 1000, 1000);
  asked.Same("WinHttpSendRequest", call.Send(), ERROR_SUCCESS);
  asked.Same("WinHttpReceiveResponse", call.Receive(), ERROR_WINHTTP_TIMEOUT);
}

constexpr Case kCases[] = {
    {"answer", "an answer comes with status and whole body", AnswersAreWhole},
    {"redirect", "a redirect is told and not followed when so asked", RedirectsAreNotFollowed},
    {"cut", "of a body that breaks off no more than was sent is read", CutBodiesAreErrors},
    {"closed receiving", "a request that is closed while it waits for an answer ends", ClosedWhileReceiving},
    {"closed reading", "a request that is closed within a body ends", ClosedWhileReading},
    {"time-out", "silence ends after the time that was set", SilenceEndsInATimeOut},
};

}  // namespace

extern const Group kHttp;
const Group kHttp{"http", kCases};

}  // namespace contract
