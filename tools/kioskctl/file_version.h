#pragma once

#include <string>

namespace kioskctl {

// The version that a program file bears, as this product writes versions: "2026-10-15-0001"; "unknown" when it bears
// none or cannot be opened. The file is looked at, not run.
std::string FileVersion(const std::wstring& path);

}  // namespace kioskctl
