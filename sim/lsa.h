// Private data of the simulated machine's local security authority: area "Secrets". A handle can do what it was opened
// for and nothing else, and what was retrieved must be wiped before it is freed.
#pragma once

#include "sim/machine.h"

#include <optional>
#include <string>

namespace sim {

std::optional<std::wstring> Secret(const std::wstring& name);
void SetSecret(const std::wstring& name, const std::wstring& text);
inline const Field<> lsaError{L"Lsa", L"Error"};  // of LsaOpenPolicy
// How often this process has opened it.
int LsaQuestions();

}  // namespace sim
