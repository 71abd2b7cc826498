// Private data of the local security authority. That of Windows itself ("DefaultPassword") only LocalSystem may read.
#pragma once

#include "win32/winapi.h"

#include <string>

namespace proof {

// The secret of that name, in hexadecimal digits that only this computer can open again; empty when there is none. A
// Windows error.
DWORD ReadSecret(const std::wstring& name, std::string& sealed);

// Stores what ReadSecret has given; empty: deletes the secret, also when there is none.
bool StoreSecret(const std::wstring& name, const std::string& sealed);

}  // namespace proof
