#include "timesync/time_sync.h"

#include "log/log.h"
#include "state/registry.h"
#include "text/text.h"
#include "timesync/sntp_query.h"
#include "timesync/time_service.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <optional>

namespace kiosk::timesync {
namespace {

constexpr wchar_t kParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Parameters";
constexpr wchar_t kDefaultServer[] = L"time.windows.com";
constexpr std::size_t kMaxHostName = 253;  // characters, RFC 1035

json::Value Failure(const char* code, const std::string& server) {
  json::Value reply = json::ErrorReply(code);
  reply.Set("server", server);
  return reply;
}

}  // namespace

std::wstring TimeServer() {
  std::string list = win32::ToNarrow(state::ReadString(kParametersKey, L"NtpServer").value_or(L""));
  list = text::TrimSpace(list);
  std::transform(list.begin(), list.end(), list.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  const std::wstring first = win32::ToWide(std::string_view(list).substr(0, list.find_first_of(" ,")));
  return first.empty() || first.size() > kMaxHostName ? kDefaultServer : first;
}

json::Value TimeSync() {
  const std::wstring host = TimeServer();
  const std::string server = win32::ToNarrow(host);
  if (!RunTimeService()) {
    return Failure("sync_failed", server);
  }
  const std::optional<Milliseconds> offset = QuerySntp(host);
  if (!offset) {
    log::Log(log::kWarn, log::kKiosk, "time: no SNTP answer from %s", server.c_str());
  }
  if (!Resynchronise()) {
    return Failure(offset ? "sync_failed" : "unreachable", server);
  }
  log::Log(log::kNotice, log::kKiosk, "time: resynced with %s, the clock was %lld ms out", server.c_str(),
           static_cast<long long>(offset.value_or(0)));
  json::Value reply = json::OkReply();
  reply.Set("server", server);
  if (offset) {
    reply.Set("offsetMs", *offset);
  }
  return reply;
}

}  // namespace kiosk::timesync
