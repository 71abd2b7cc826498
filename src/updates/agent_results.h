// What the update agent's answers amount to.
#pragma once

#include "updates/agent_interfaces.h"
#include "win32/com.h"

#include <string>

namespace kiosk::updates {

constexpr bool Succeeded(OperationResultCode code) noexcept {
  return code == orcSucceeded || code == orcSucceededWithErrors;
}

// The failure that a download's or an installation's result stands for; S_OK when it is none. E_ABORT or E_FAIL where
// Windows does not name one.
template <typename Result>
HRESULT Outcome(Result* result) noexcept {
  OperationResultCode code = orcFailed;
  const HRESULT read = result->get_ResultCode(&code);
  if (FAILED(read) || Succeeded(code)) {
    return FAILED(read) ? read : S_OK;
  }
  LONG detail = S_OK;
  return SUCCEEDED(result->get_HResult(&detail)) && FAILED(detail) ? detail : code == orcAborted ? E_ABORT : E_FAIL;
}

// What a call returned; E_POINTER when it claimed success and gave no object.
template <typename Interface>
HRESULT Given(HRESULT result, const win32::ComPtr<Interface>& object) noexcept {
  return SUCCEEDED(result) && !object ? E_POINTER : result;
}

// "<stage> 0x<HRESULT>", as the report and the terminal's reply have it.
inline std::string StageText(const char* stage, HRESULT result) {
  return std::string(stage) + " " + win32::HresultText(result);
}

}  // namespace kiosk::updates
