#include "timesync/time_sync.h"

#include "command/reply.h"
#include "log/log.h"
#include "state/registry.h"
#include "text/text.h"
#include "timesync/sntp_query.h"
#include "timesync/time_service.h"
#include "win32/clock.h"
#include "win32/stop.h"
#include "win32/wide_text.h"

#include <algorithm>
#include <cstdlib>
#include <optional>

namespace kiosk::timesync {
namespace {

constexpr wchar_t kParametersKey[] = L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Parameters";
constexpr wchar_t kConfigKey[] = L"SYSTEM\\CurrentControlSet\\Services\\W32Time\\Config";
constexpr wchar_t kPolicyParametersKey[] = L"SOFTWARE\\Policies\\Microsoft\\W32Time\\Parameters";
constexpr wchar_t kPolicyConfigKey[] = L"SOFTWARE\\Policies\\Microsoft\\W32Time\\Config";
constexpr wchar_t kDefaultServer[] = L"time.windows.com";
constexpr std::size_t kMaxHostName = 253;  // characters, RFC 1035
constexpr Milliseconds kRight = 2'000;     // a clock that is out by no more counts as set
constexpr DWORD kSettleTime = 10'000;      // how long the clock is measured again
constexpr DWORD kBetweenQueries = 2'000;   // as far apart as the queries of a burst of NTP

// The host that Windows takes its time from: the first that its setting names, without flags; Windows' own public
// server when the setting names none.
std::wstring TimeServer() {
  std::string list = win32::ToNarrow(state::ReadString(kParametersKey, L"NtpServer").value_or(L""));
  list = text::TrimSpace(list);
  std::transform(list.begin(), list.end(), list.begin(), text::AsciiLower<char>);
  const std::wstring first = win32::ToWide(std::string_view(list).substr(0, list.find_first_of(" ,")));
  return first.empty() || first.size() > kMaxHostName ? kDefaultServer : first;
}

json::Value Failure(const char* code, const std::string& server) {
  json::Value reply = command::ErrorReply(code);
  reply.Set("server", server);
  return reply;
}

// Whether a domain or a policy decides whom Windows asks for the time: that is not the host that is measured here.
bool SourceIsElsewhere() {
  if (state::ReadString(kPolicyParametersKey, L"NtpServer") || state::ReadString(kPolicyParametersKey, L"Type")) {
    return true;
  }
  const std::wstring type = state::ReadString(kParametersKey, L"Type").value_or(L"");
  return type == L"NT5DS" || type == L"AllSync";
}

// Windows does not set a clock whose error is at most this; it lets it run faster or slower until it is right.
Milliseconds LargestGradualError() {
  const auto policy = state::ReadDword(kPolicyConfigKey, L"MaxAllowedPhaseOffset");
  const auto seconds = policy ? policy : state::ReadDword(kConfigKey, L"MaxAllowedPhaseOffset");
  return Milliseconds{seconds.value_or(1)} * 1'000;  // 1 is what a computer outside of a domain has
}

// Makes Windows set the clock, and measures whether it did.
class Synchronisation {
 public:
  // `offset`: how far the clock is behind, if that is known. If it is not, Windows has to be believed; and on a clock
  // that is right already nothing could be seen.
  Synchronisation(const std::wstring& host, std::optional<Milliseconds> offset)
      : host_(host),
        measures_(offset && std::abs(*offset) > kRight && !SourceIsElsewhere()),
        tolerated_(std::max(kRight, LargestGradualError())) {}

  bool Run() {
    if (CallSyncNow()) {
      if (!measures_) {
        return true;
      }
      MeasureUntilRight();
      if (!StillWrong()) {
        return true;
      }
      log::Log(log::kWarn, log::kKiosk, "time: the clock is still %lld ms out; using w32tm",
               static_cast<long long>(left_));
    }
    if (win32::StopRequested() || !RunW32tm()) {
      return false;
    }
    left_ = measures_ ? QuerySntp(host_, kSettleTime).value_or(0) : 0;
    if (StillWrong()) {
      log::Log(log::kError, log::kKiosk, "time: the clock is still %lld ms out", static_cast<long long>(left_));
    }
    return !StillWrong();
  }

  // The clock is still out: Windows took the time over and corrects it little by little.
  [[nodiscard]] bool IsGradual() const { return std::abs(left_) > kRight; }

 private:
  [[nodiscard]] bool StillWrong() const { return std::abs(left_) > tolerated_; }

  void MeasureUntilRight() {
    const win32::Deadline deadline(kSettleTime);
    bool answered = false;
    do {
      if (const auto measured = QuerySntp(host_, deadline.Left()); measured) {
        left_ = *measured;
        answered = true;
      }
    } while ((!answered || StillWrong()) && deadline.Left() > kBetweenQueries &&
             win32::WaitOrStop(nullptr, kBetweenQueries) != win32::WaitResult::kStop);
  }

  const std::wstring& host_;
  const bool measures_;
  const Milliseconds tolerated_;
  Milliseconds left_ = 0;  // how far the clock is still behind, as far as is known
};

}  // namespace

json::Value TimeSync(const command::Request& /*request*/) {
  const std::wstring host = TimeServer();
  const std::string server = win32::ToNarrow(host);
  if (!RunTimeService()) {
    return Failure("sync_failed", server);
  }
  const std::optional<Milliseconds> offset = QuerySntp(host);
  if (!offset) {
    log::Log(log::kWarn, log::kKiosk, "time: no SNTP answer from %s", server.c_str());
  }
  Synchronisation synchronisation(host, offset);
  if (!synchronisation.Run()) {
    return Failure(offset ? "sync_failed" : "unreachable", server);
  }
  log::Log(log::kNotice, log::kKiosk, "time: resynced with %s, the clock was %lld ms out%s", server.c_str(),
           static_cast<long long>(offset.value_or(0)),
           synchronisation.IsGradual() ? "; Windows corrects it gradually" : "");
  json::Value reply = command::OkReply();
  reply.Set("server", server);
  if (offset) {
    reply.Set("offsetMs", *offset);
  }
  return reply;
}

}  // namespace kiosk::timesync
