#include "sim/http.h"

#include "sim/clock.h"
#include "sim/http_operation.h"
#include "sim/seam.h"

#include <algorithm>
#include <iterator>
#include <mutex>
#include <set>
#include <utility>

namespace sim {
namespace {

constexpr DWORD kResponseTimeout = 90'000;  // WinHTTP's own for the wait for headers
constexpr DWORD kConnectRetries = 5;        // its own number of addresses of a host to which it tries to connect
constexpr DWORD kNumberSize = sizeof(DWORD);

std::mutex mutex;  // guards what follows; never held while a handler or a wait runs
bool scripted = false;
std::map<std::pair<std::wstring, std::wstring>, ScriptedPortal::Handler> scripts;
std::vector<Request> requests;
std::map<HINTERNET, HandlePtr> handles;
std::set<DWORD> refusedOptions;
char tokens[65536];  // handles are addresses in here, used in turn
std::size_t lastToken = 0;

// Ours, and not the network's; a handle that was closed stays ours.
bool Ours(HINTERNET handle) { return handle >= tokens && handle < std::end(tokens); }

HandlePtr Find(HINTERNET handle) {
  const std::lock_guard guard(mutex);
  const auto found = handles.find(handle);
  return found != handles.end() ? found->second : nullptr;
}

HINTERNET Register(HandlePtr handle) {
  const std::lock_guard guard(mutex);
  do {
    handle->token = &tokens[lastToken++ % std::size(tokens)];
  } while (handles.contains(handle->token));  // a session may live for longer than all the others
  return handles.emplace(handle->token, handle).first->first;
}

BOOL Finish(DWORD error) {
  SetLastError(error);
  return error == ERROR_SUCCESS;
}

// The handle in one of the stages from `from` to `to`; null with the last error set otherwise.
HandlePtr Need(const char* function, HINTERNET handle, Stage from, Stage to) {
  HandlePtr found = Find(handle);
  if (!found) {
    SetLastError(ERROR_INVALID_HANDLE);  // what a call gets when another thread was faster in closing
  } else if (found->stage < from || found->stage > to) {
    const bool kind = (found->stage < Stage::kOpened) != (from < Stage::kOpened) || to < Stage::kOpened;
    Violation("%s: %s", function, kind ? "not the right kind of handle" : "not the time for this call");
    SetLastError(kind ? ERROR_WINHTTP_INCORRECT_HANDLE_TYPE : ERROR_WINHTTP_INCORRECT_HANDLE_STATE);
    found.reset();
  }
  return found;
}

// A child of `parent`, or nothing when that is not of the stage.
HandlePtr Child(const char* function, HINTERNET parent, Stage stage) {
  const HandlePtr from = Need(function, parent, stage, stage);
  if (!from) {
    return nullptr;
  }
  auto child = std::make_shared<Handle>();
  child->stage = static_cast<Stage>(static_cast<int>(stage) + 1);
  child->request = from->request;
  child->callback = from->callback;
  child->notifications = from->notifications;
  return child;
}

Response Answer(const Request& request) {
  ScriptedPortal::Handler handler;
  {
    const std::lock_guard guard(mutex);
    requests.push_back(request);
    const auto found = scripts.find({request.method, request.path.substr(0, request.path.find(L'?'))});
    if (found != scripts.end()) {
      handler = found->second;
    }
  }
  return handler ? handler(request) : Response{.status = 404};
}

DWORD SetOption(Handle& handle, DWORD option, const void* value, DWORD size) {
  if (refusedOptions.contains(option)) {
    return ERROR_WINHTTP_INTERNAL_ERROR;
  }
  const bool certificate = option == WINHTTP_OPTION_CLIENT_CERT_CONTEXT;
  const bool ofRequest = certificate || option == WINHTTP_OPTION_DISABLE_FEATURE ||
                         option == WINHTTP_OPTION_ENABLE_FEATURE || option == WINHTTP_OPTION_SECURITY_FLAGS;
  if (ofRequest && handle.stage < Stage::kOpened) {
    Violation("WinHttpSetOption: option %lu is one of a request", option);
    return ERROR_WINHTTP_INCORRECT_HANDLE_TYPE;
  }
  if (certificate && (handle.request.flags & WINHTTP_FLAG_SECURE) == 0) {
    return ERROR_WINHTTP_INCORRECT_HANDLE_STATE;  // refused on a connection without TLS
  }
  // All others that the service may need are numbers.
  const DWORD needed = option == WINHTTP_OPTION_CONTEXT_VALUE ? sizeof(DWORD_PTR) : sizeof(DWORD);
  if (!certificate && (value == nullptr || size != needed)) {
    Violation("WinHttpSetOption: option %lu has %lu bytes", option, size);
    return ERROR_INSUFFICIENT_BUFFER;
  }
  handle.request.options[option].assign(static_cast<const char*>(value), value != nullptr ? size : 0);
  return ERROR_SUCCESS;
}

// Both answer through the callback alone: a place for the number that is gone when they complete "can cause a memory
// fault".
void CheckCount(const char* function, const DWORD* count) {
  if (count != nullptr) {
    Violation("%s: the number is not null in asynchronous mode", function);
  }
}

}  // namespace

DWORD Request::Number(DWORD option, DWORD missing) const {
  const auto found = options.find(option);
  if (found != options.end() && found->second.size() == sizeof(DWORD)) {
    std::copy_n(found->second.data(), sizeof(DWORD), reinterpret_cast<char*>(&missing));
  }
  return missing;
}

ScriptedPortal::ScriptedPortal() { scripted = true; }

ScriptedPortal::~ScriptedPortal() {
  const std::lock_guard guard(mutex);
  scripted = false;
  scripts.clear();
  requests.clear();
  refusedOptions.clear();
}

void ScriptedPortal::On(const std::wstring& method, const std::wstring& path, Handler handler) {
  const std::lock_guard guard(mutex);
  scripts[{method, path}] = std::move(handler);
}

void ScriptedPortal::RefuseOption(DWORD option) {
  const std::lock_guard guard(mutex);
  refusedOptions.insert(option);
}

std::vector<Request> ScriptedPortal::Requests() const {
  const std::lock_guard guard(mutex);
  return requests;
}

void ScriptedPortal::ForgetRequests() {
  const std::lock_guard guard(mutex);
  requests.clear();
}

std::vector<std::uint64_t> ScriptedPortal::Seconds() const {
  std::vector<std::uint64_t> seconds;
  for (const Request& request : Requests()) {
    seconds.push_back(request.at / 1000);
  }
  return seconds;
}

int OpenHttpHandles() {
  const std::lock_guard guard(mutex);
  return static_cast<int>(handles.size());
}

}  // namespace sim

using namespace sim;

// Hands a call on a handle of the network's to Windows; else `found` is the handle, in one of the stages.
#define FIND(name, handle, from, to, ...)                \
  if (!Ours(handle)) {                                   \
    return ::name(__VA_ARGS__);                          \
  }                                                      \
  const HandlePtr found = Need(#name, handle, from, to); \
  if (!found) {                                          \
    return FALSE;                                        \
  }

SIM(HINTERNET, WinHttpOpen, LPCWSTR agent, DWORD access, LPCWSTR proxy, LPCWSTR bypass, DWORD flags) {
  if (!scripted) {
    return ::WinHttpOpen(agent, access, proxy, bypass, flags);
  }
  // "Concurrency in WinHTTP": only an asynchronous request may be closed while something of it is not over, and the
  // service could not stop before.
  if (flags != WINHTTP_FLAG_ASYNC ||
      (access != WINHTTP_ACCESS_TYPE_NAMED_PROXY && (proxy != nullptr || bypass != nullptr))) {
    Violation("WinHttpOpen: flags 0x%lx, or a proxy without WINHTTP_ACCESS_TYPE_NAMED_PROXY", flags);
  }
  auto session = std::make_shared<Handle>();
  session->request.userAgent = agent != nullptr ? agent : L"";
  session->request.accessType = access;
  return Register(std::move(session));
}

SIM(WINBOOL, WinHttpSetTimeouts, HINTERNET handle, int resolve, int connect, int send, int receive) {
  FIND(WinHttpSetTimeouts, handle, Stage::kSession, Stage::kAnswered, handle, resolve, connect, send, receive)
  if (std::min({resolve, connect, send, receive}) < -1) {
    return Finish(ERROR_INVALID_PARAMETER);
  }
  found->request.resolveTimeout = resolve;
  found->request.connectTimeout = connect;
  found->request.sendTimeout = send;
  found->request.receiveTimeout = receive;
  return Finish(ERROR_SUCCESS);
}

SIM(WINBOOL, WinHttpSetOption, HINTERNET handle, DWORD option, LPVOID value, DWORD size) {
  FIND(WinHttpSetOption, handle, Stage::kSession, Stage::kAnswered, handle, option, value, size)
  return Finish(SetOption(*found, option, value, size));
}

SIM(WINHTTP_STATUS_CALLBACK, WinHttpSetStatusCallback, HINTERNET handle, WINHTTP_STATUS_CALLBACK callback,
    DWORD notifications, DWORD_PTR reserved) {
  if (!Ours(handle)) {
    return ::WinHttpSetStatusCallback(handle, callback, notifications, reserved);
  }
  const HandlePtr found = Need("WinHttpSetStatusCallback", handle, Stage::kSession, Stage::kOpened);
  if (!found) {
    return WINHTTP_INVALID_STATUS_CALLBACK;
  }
  found->notifications = notifications;
  return std::exchange(found->callback, callback);
}

SIM(HINTERNET, WinHttpConnect, HINTERNET session, LPCWSTR host, INTERNET_PORT port, DWORD reserved) {
  if (!Ours(session)) {
    return ::WinHttpConnect(session, host, port, reserved);
  }
  HandlePtr connection = Child("WinHttpConnect", session, Stage::kSession);
  if (!connection) {
    return nullptr;
  }
  connection->request.host = host;
  connection->request.port = port;
  return Register(std::move(connection));
}

SIM(HINTERNET, WinHttpOpenRequest, HINTERNET connection, LPCWSTR method, LPCWSTR path, LPCWSTR version,
    LPCWSTR referrer, LPCWSTR* accept, DWORD flags) {
  if (!Ours(connection)) {
    return ::WinHttpOpenRequest(connection, method, path, version, referrer, accept, flags);
  }
  HandlePtr request = Child("WinHttpOpenRequest", connection, Stage::kConnection);
  if (!request) {
    return nullptr;
  }
  request->request.method = method != nullptr ? method : L"GET";
  request->request.path = path != nullptr && *path != L'\0' ? path : L"/";
  request->request.flags = flags;
  return Register(std::move(request));
}

SIM(WINBOOL, WinHttpSendRequest, HINTERNET handle, LPCWSTR headers, DWORD headersLength, LPVOID body, DWORD bodySize,
    DWORD totalSize, DWORD_PTR context) {
  FIND(WinHttpSendRequest, handle, Stage::kOpened, Stage::kOpened, handle, headers, headersLength, body, bodySize,
       totalSize, context)
  if (totalSize != bodySize) {
    Violation("WinHttpSendRequest: %lu of %lu bytes; writing the rest is not simulated", bodySize, totalSize);
  }
  Request& request = found->request;
  if (headers != nullptr) {
    request.headers = headersLength == static_cast<DWORD>(-1) ? headers : std::wstring(headers, headersLength);
  }
  request.body.assign(static_cast<const char*>(body), body != nullptr ? bodySize : 0);
  // The context given here replaces what was set before, a null as well.
  request.options[WINHTTP_OPTION_CONTEXT_VALUE].assign(reinterpret_cast<const char*>(&context), sizeof(context));
  request.at = ClockNow();
  found->bodyAt = body != nullptr ? body : request.body.data();
  found->response = Answer(request);
  const auto effect = [found] {
    found->stage = Stage::kSent;
    // WINHTTP_OPTION_CONNECT_RETRIES: so many addresses of the host are tried, each once.
    const DWORD tried = found->request.Number(WINHTTP_OPTION_CONNECT_RETRIES, kConnectRetries);
    return found->response.deadAddresses < tried ? found->response.sendError : DWORD{ERROR_WINHTTP_CANNOT_CONNECT};
  };
  return BeginOperation({"WinHttpSendRequest", found, found->response.connectDelay, request.connectTimeout, effect,
                         WINHTTP_CALLBACK_STATUS_SENDREQUEST_COMPLETE});
}

SIM(WINBOOL, WinHttpReceiveResponse, HINTERNET handle, LPVOID reserved) {
  FIND(WinHttpReceiveResponse, handle, Stage::kSent, Stage::kSent, handle, reserved)
  const DWORD limit = found->request.Number(WINHTTP_OPTION_RECEIVE_RESPONSE_TIMEOUT, kResponseTimeout);
  const auto effect = [found] {
    const DWORD error = found->response.receiveError;
    found->stage = error == 0 ? Stage::kAnswered : found->stage;
    return error;
  };
  return BeginOperation({"WinHttpReceiveResponse", found, found->response.headersDelay, static_cast<int>(limit), effect,
                         WINHTTP_CALLBACK_STATUS_HEADERS_AVAILABLE});
}

SIM(WINBOOL, WinHttpQueryHeaders, HINTERNET handle, DWORD what, LPCWSTR name, LPVOID buffer, LPDWORD size,
    LPDWORD index) {
  FIND(WinHttpQueryHeaders, handle, Stage::kAnswered, Stage::kAnswered, handle, what, name, buffer, size, index)
  if (what == WINHTTP_QUERY_RETRY_AFTER) {
    const std::wstring& text = found->response.retryAfter;
    const auto needed = static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t));
    if (text.empty() || *size < needed) {
      *size = needed;
      return Finish(text.empty() ? ERROR_WINHTTP_HEADER_NOT_FOUND : ERROR_INSUFFICIENT_BUFFER);
    }
    std::copy_n(text.c_str(), text.size() + 1, static_cast<wchar_t*>(buffer));
    *size = needed - DWORD{sizeof(wchar_t)};
    return Finish(ERROR_SUCCESS);
  }
  if (what != (WINHTTP_QUERY_STATUS_CODE | WINHTTP_QUERY_FLAG_NUMBER)) {
    Violation("WinHttpQueryHeaders: only Retry-After and the status code as a number are simulated, not 0x%lx", what);
    return Finish(ERROR_WINHTTP_HEADER_NOT_FOUND);
  }
  if (*size < sizeof(DWORD)) {
    *size = sizeof(DWORD);
    return Finish(ERROR_INSUFFICIENT_BUFFER);
  }
  *static_cast<DWORD*>(buffer) = found->response.status;
  *size = sizeof(DWORD);
  return Finish(ERROR_SUCCESS);
}

SIM(WINBOOL, WinHttpQueryDataAvailable, HINTERNET handle, LPDWORD count) {
  FIND(WinHttpQueryDataAvailable, handle, Stage::kAnswered, Stage::kAnswered, handle, count)
  CheckCount("WinHttpQueryDataAvailable", count);
  const bool more = found->sent < found->response.body.size();
  const auto effect = [found] {
    const std::size_t left = found->response.body.size() - found->sent;
    if (found->available == 0) {
      found->available = static_cast<DWORD>(std::min(left, found->response.chunk));
    }
    return left == 0 ? found->response.bodyError : 0;
  };
  return BeginOperation({"WinHttpQueryDataAvailable", found,
                         found->available == 0 && more ? found->response.chunkDelay : 0, found->request.receiveTimeout,
                         effect, WINHTTP_CALLBACK_STATUS_DATA_AVAILABLE, &found->available, &kNumberSize});
}

SIM(WINBOOL, WinHttpReadData, HINTERNET handle, LPVOID buffer, DWORD size, LPDWORD read) {
  FIND(WinHttpReadData, handle, Stage::kAnswered, Stage::kAnswered, handle, buffer, size, read)
  CheckCount("WinHttpReadData", read);
  if (found->available < size) {
    Violation("WinHttpReadData: waiting for more than is available is not simulated");
  }
  const DWORD count = std::min(size, found->available);
  const auto effect = [found, buffer, count] {
    std::copy_n(found->response.body.data() + found->sent, count, static_cast<char*>(buffer));
    found->sent += count;
    found->available -= count;
    found->lastRead = count;
    return DWORD{0};
  };
  return BeginOperation({"WinHttpReadData", found, found->response.readDelay, found->request.receiveTimeout, effect,
                         WINHTTP_CALLBACK_STATUS_READ_COMPLETE, buffer, &found->lastRead, buffer, size});
}

SIM(WINBOOL, WinHttpCloseHandle, HINTERNET handle) {
  if (!Ours(handle)) {
    return ::WinHttpCloseHandle(handle);
  }
  const HandlePtr found = Find(handle);
  if (!found) {
    Violation("WinHttpCloseHandle: closed before");
    return Finish(ERROR_INVALID_HANDLE);
  }
  {
    const std::lock_guard guard(mutex);
    handles.erase(handle);
  }
  CloseUnderOperation(found);
  return Finish(ERROR_SUCCESS);
}
