// What the files of the life share.
#pragma once

#include "tools/proof/portal.h"
#include "tools/proof/steps.h"

#include <string>
#include <vector>

namespace proof {

inline constexpr char kName[] = "Hall 3 – Łódź";
inline constexpr char kExitPassword[] = "Open Sesame";
inline constexpr wchar_t kClientFolder[] = L"C:\\Program Files\\Norvane\\Tessaly";
inline constexpr DWORD kOneCheckIn = 45'000;  // ms, with a check-in every 30 s

// What the portal says of the terminal from the first check-in on.
void PreparePortal(Portal& portal);

// The SID of the kiosk account; without one the step ends.
std::wstring NeedAccount();

// Ends the step unless the terminal is paired.
void NeedPaired();

// What hand::WorldLines tells in lines that begin so.
std::vector<std::string> Beginning(const std::string& text);

// That Windows signs the kiosk in by itself.
void CheckAutomaticSignIn(contract::Asked& asked);

}  // namespace proof
