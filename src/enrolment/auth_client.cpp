#include "enrolment/auth_client.h"

#include "log/log.h"
#include "network/trial.h"
#include "state/kiosk_state.h"
#include "win32/http_call.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

namespace kiosk::enrolment {
namespace {

text::Secret Headers(const wchar_t* accept, const std::string& bearerToken) {
  text::Secret headers("Content-Type: application/json\r\nAccept: " + win32::ToNarrow(accept) + "\r\n");
  if (!bearerToken.empty()) {
    headers.Append("Authorization: Bearer ");
    headers.Append(bearerToken);
    headers.Append("\r\n");
  }
  return headers;
}

AuthReply Failed(std::string error) {
  AuthReply reply;
  reply.error = std::move(error);
  return reply;
}

AuthReply FailedWith(DWORD error) { return Failed("WinHTTP error " + std::to_string(error)); }

}  // namespace

std::wstring PortalUrl() {
  std::wstring url = state::ReadString(state::kPolicyKey, state::kAuthBaseUrl.name).value_or(L"");
  if (url.empty()) {
    url = state::ReadStateString(state::kAuthBaseUrl);
  }
  if (url.empty()) {
    url = win32::ToWide(NORVANE_AUTH_BASE_URL);
  }
  while (!url.empty() && url.back() == L'/') {
    url.pop_back();
  }
  return url;
}

AuthReply AuthRequest(const wchar_t* method, const std::string& path, const std::string& body,
                      const std::string& bearerToken, std::size_t maxBody, const wchar_t* accept,
                      std::uint32_t deadline, HANDLE end) {
  if (win32::StopRequested()) {
    return FailedWith(ERROR_WINHTTP_OPERATION_CANCELLED);
  }
  const unsigned networkChanges = network::ChangesMade();
  win32::HttpTarget target;
  if (!win32::CrackHttpUrl(PortalUrl() + win32::ToWide(path), target)) {
    return Failed("unparseable AuthBaseUrl");
  }
  const win32::HttpHandle session = win32::OpenHttpSession(L"NorvaneKiosk/" + win32::ToWide(log::kVersion));
  if (!session) {
    return Failed("WinHttpOpen failed");
  }
  const text::Secret headers = Headers(accept, bearerToken);
  std::wstring wide = win32::ToWide(headers.Get());
  AuthReply reply;
  const win32::HttpAnswer answer =
      win32::CallHttp(session.Get(), {.method = method,
                                      .target = &target,
                                      .headers = wide,
                                      .body = body,
                                      .stop = win32::StopEvent(),
                                      .end = end,
                                      .deadline = deadline,
                                      .maxBody = maxBody,
                                      .onBody = [&reply](std::string_view chunk) { reply.body.Append(chunk); }});
  SecureZeroMemory(wide.data(), wide.size() * sizeof(wchar_t));
  if (answer.failedAt != win32::HttpStep::kDone) {
    return answer.failedAt == win32::HttpStep::kOpen ? Failed("cannot open the request") : FailedWith(answer.error);
  }
  reply.answered = 1;
  reply.status = static_cast<std::int32_t>(answer.status);
  if (reply.body.Get().size() > maxBody) {
    reply.body = text::Secret();  // a part of it, of which no reader is to make something
  }
  network::NoteAnswer(networkChanges, reply.status);
  return reply;
}

}  // namespace kiosk::enrolment
