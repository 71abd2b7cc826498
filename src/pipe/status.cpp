#include "pipe/status.h"

#include "command/reply.h"
#include "enrolment/kiosk_session.h"
#include "portal/sign_in_store.h"
#include "state/kiosk_state.h"
#include "win32/wide_text.h"

#include <string>
#include <utility>

namespace kiosk::pipe {
namespace {

std::string StateText(const state::StateValue& value) { return win32::ToNarrow(state::ReadStateString(value)); }

}  // namespace

json::Value Status(const command::Request& request) {
  const bool provisioned = state::FlagIsOn(state::kProvisioned);
  json::Value reply = command::OkReply();
  reply.Set("enrolled", state::TokenIsStored());
  reply.Set("provisioned", provisioned);
  reply.Set("kioskSession", provisioned && request.session != 0 && enrolment::IsKioskSession(request.session));
  reply.Set("maintenance", state::FlagIsOn(state::kMaintenance));
  reply.Set("account", enrolment::kKioskUserText);
  reply.Set("terminalName", StateText(state::kTerminalName));
  reply.Set("signIn", portal::LoadSignIn());
  std::string lastError = StateText(state::kLastError);
  if (!lastError.empty()) {
    reply.Set("error", std::move(lastError));
  }
  return reply;
}

}  // namespace kiosk::pipe
