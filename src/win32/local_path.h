// Whether a file lies on this computer, found out without a word to any other.
#pragma once

#include <string_view>

namespace kiosk::win32 {

// True when the path leads to a disk of this computer: its volume is fixed, removable or a RAM disk. Takes absolute
// paths with a drive letter or the identifier of a volume ("\\?\Volume{...}\"). Anything else is not local; above all a
// path that names a server, of which nothing is asked, because Windows would sign in there for the answer.
[[nodiscard]] bool IsLocalPath(std::wstring_view path) noexcept;

}  // namespace kiosk::win32
