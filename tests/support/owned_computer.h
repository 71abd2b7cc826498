// A computer with an owner: its enrolment, and what differs from before.
#pragma once

#include <set>
#include <string>

namespace kiosk::test {

// Every setting that kiosk mode touches has a value, of another type than usual where Windows takes that; "anna" has an
// account and a profile, and nobody signs in by itself.
void OwnComputer();

// A protected state key, the client's folder and a token; with `provision` the kiosk account too.
void Enrol(const std::string& token = "tok-1", bool provision = true);

// What a computer must have that counts as provisioned. Left out is what provisioning lets pass when it fails: full
// name, privileged groups, the settings of the first sign-in, fast user switching, the switch itself, unloading the
// hive.
void ExpectProvisioned();

// The names that stand in the state key; none without the key.
std::set<std::wstring> StateNames();

// The things in which the computer differs from a dump, and the values of the state key: each once and without its
// content, in small letters.
std::set<std::string> Differences(const std::string& before);

}  // namespace kiosk::test
