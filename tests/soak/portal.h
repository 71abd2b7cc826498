// The portal of the soak: gives out tokens, knows one of them, and answers by the world's policy and outage.
#pragma once

#include "sim/http.h"

#include <string>

namespace kiosk::soak {

// What no log, file, record or report may hold begins so.
inline constexpr char kTokenMark[] = "soak-token-";
inline constexpr char kPasswordMark[] = "Way-Out-";

// How the portal, or the way to it, fails.
enum Outage : std::uint32_t { kNone, kBusy, kUnreachable, kSilent, kNonsense, kUnknown, kSlow, kCutShort, kOutages };

void ScriptPortal(sim::ScriptedPortal& portal);

// The terminal's adapter leads nowhere: an address of another network, or the cable is out.
bool CutOff();

std::string Token(std::uint32_t number);
// The one of the moment's policy; empty when that has none.
std::string ExitPassword();
// How many files the terminal keeps of its branding.
std::size_t BrandingFiles();

}  // namespace kiosk::soak
