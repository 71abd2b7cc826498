// The life of a terminal and the rows around it, in their order: tables in which a new promise is one more line. And
// what the files with its steps share.
#pragma once

#include "tests/contract/contract.h"
#include "tools/proof/portal.h"

#include <span>
#include <string>
#include <vector>

namespace proof {

struct Step {
  contract::Case what;  // its name is the id, "life/pair"
  enum Kind {
    kStays,
    kRestarts,  // Windows restarts in it; with the permission for that alone
    kMinutes,   // waits for what the product does once a minute; not with --quick
  } kind = kStays;
};

// Each file's own.
extern const std::span<const Step> kPlantedSteps, kFirstSteps, kKioskSteps, kProtectionSteps, kSignatureSteps,
    kLaterSteps;

// All, in the order in which they are played.
const std::vector<Step>& Steps();

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
