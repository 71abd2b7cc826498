// The secret that Windows signs in with by itself, which the local security authority keeps under one name for the
// whole computer, and how the service tells its own from anybody else's: by the digest of what it stored, which is
// random text.
#pragma once

#include <cstddef>
#include <string>

namespace kiosk::account {

// Stores the secret; null deletes it, also when there is none. A failure is logged.
bool StoreAutoLogonSecret(const wchar_t* password, std::size_t length);

// Stores the kiosk account's password and notes its digest ("AutoLogonDigest") so that the present secret is known at
// every moment in between. Null on success, otherwise the failure's code.
const char* StoreKioskSecret(const wchar_t* password, std::size_t length);

// The digest of the secret that is stored now; empty when there is none, or the local security authority does not
// answer.
std::string PresentSecretDigest();

// For an enrolment that knows no digest: takes the present secret for the service's own ("AutoLogonDigest").
void NoteSecretAsOurs();

}  // namespace kiosk::account
