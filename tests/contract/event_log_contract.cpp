// Windows' event log. On a real Windows its entries stay, in the log "Application".
#include "tests/contract/contract.h"
#include "win32/owners.h"

namespace contract {
namespace {

using kiosk::win32::EventSource;

BOOL Report(HANDLE source, std::span<const wchar_t*> texts) {
  return ReportEventW(source, EVENTLOG_INFORMATION_TYPE, 0, 0x40000001, nullptr, static_cast<WORD>(texts.size()), 0,
                      texts.data(), nullptr);
}

void StrangersMayWrite(Asked& asked) {
  const EventSource source(RegisterEventSourceW(nullptr, L"NorvaneProof"));
  asked.True("a source that nobody registered", static_cast<bool>(source));
  const wchar_t* texts[] = {L"one of the cases of kiosk_proof.exe", L"%1 %%1 \u0141\u00F3d\u017A"};
  asked.True("with texts", Report(source.Get(), texts) != 0);
  asked.True("without", Report(source.Get(), {}) != 0);
}

void ClosedSourcesAreNone(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "takes any handle");
  asked.Fails("an entry", Report(nullptr, {}) != 0, {ERROR_INVALID_HANDLE});
  asked.Fails("its end", DeregisterEventSource(nullptr) != 0, {ERROR_INVALID_HANDLE});
}

void TheSecurityLogIsNobodys(Asked& asked) {
  asked.KnownWrong(Platform::kWine, "takes any name");
  asked.Fails("RegisterEventSourceW", static_cast<bool>(EventSource(RegisterEventSourceW(nullptr, L"Security"))),
              {ERROR_ACCESS_DENIED});
}

constexpr Case kCases[] = {
    {"unregistered", "a source without texts is written like any other", StrangersMayWrite},
    {"closed", "without a source nothing is written", ClosedSourcesAreNone},
    {"security", "the security log is the system's alone", TheSecurityLogIsNobodys},
};

}  // namespace

extern const Group kEventLog;
const Group kEventLog{"event log", kCases};

}  // namespace contract
