// Whom this computer trusts as a root of certificates.
#pragma once

#include <string>

namespace proof {

// Trusts the certificate (DER) from now on, noted in the journal. False with the last error.
bool Trust(const std::string& certificate);

// Does so no longer; `thumbprint` is its SHA-1 digest in hexadecimal digits. True when it is not trusted.
bool Distrust(const std::wstring& thumbprint);

}  // namespace proof
