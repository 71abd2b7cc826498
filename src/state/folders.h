// Folders whose place is told by a value of the registry.
#pragma once

#include <optional>
#include <string>

namespace kiosk::state {

// The folder in which the client program is installed, without trailing slashes; empty when the installer left none.
std::wstring ClientInstallFolder();

// The folder of a user's profile, by the text of their SID. Empty optional when Windows knows of none.
std::optional<std::wstring> ProfileFolder(const std::wstring& sid);

}  // namespace kiosk::state
