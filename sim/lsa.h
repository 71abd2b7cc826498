// Private data of the simulated machine's local security authority: area "Secrets". A handle can do what it was opened
// for and nothing else, and what was retrieved must be wiped before it is freed.
#pragma once

#include "win32/winapi.h"

#include <optional>
#include <string>

namespace sim {

std::optional<std::wstring> Secret(const std::wstring& name);
void SetSecret(const std::wstring& name, const std::wstring& text);
// LsaOpenPolicy answers with this error from now on; 0: as it should.
void FailLsa(DWORD error);
// How often this process has opened it.
int LsaQuestions();

}  // namespace sim
