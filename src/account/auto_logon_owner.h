// Whose automatic sign-in it is. Windows itself puts everybody who signs in at the console into DefaultUserName and
// DefaultDomainName, so these names alone tell little.
#pragma once

namespace kiosk::account {

// True when Windows is to sign somebody in by itself.
bool AutoLogonIsOn();

// True when both names are the kiosk account's.
bool AutoLogonNamesKiosk();

// True when automatic sign-in is the service's: it names the kiosk account; or it names somebody else, and nothing but
// Windows' own note of who signed in last speaks for that one. A password for automatic sign-in in the registry, or a
// secret that the service did not store, are somebody's choice and say "no"; without a digest of the service's secret
// any other name does. Asks the local security authority, unless the name is the kiosk's: called without any leaf lock.
bool AutoLogonIsOurs();

// True when the service is to write its names back: automatic sign-in is marked as its own, is its own, and a name
// differs. As above about locks; nothing is asked while no name differs.
bool KioskNamesAreDue();

// Writes the kiosk account's names into DefaultUserName and DefaultDomainName. False when one could not be written.
bool WriteKioskNames();

}  // namespace kiosk::account
