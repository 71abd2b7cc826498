// Where the service and its maker's other programs keep files.
#pragma once

#include <optional>
#include <string>

namespace kiosk::state {

// Below C:\ProgramData. The first two are shared with other programs of the maker.
inline constexpr wchar_t kMakerFolder[] = L"C:\\ProgramData\\Norvane";
inline constexpr wchar_t kProductFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly";
inline constexpr wchar_t kLogRoot[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs";
inline constexpr wchar_t kLogArchive[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Archive";
inline constexpr wchar_t kLogDrop[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Drop";
inline constexpr wchar_t kLogDropTaken[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Drop\\Taken";
inline constexpr wchar_t kKioskFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Kiosk";
inline constexpr wchar_t kBrandingFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Kiosk\\Branding";

// The folder in which the client program is installed, without trailing slashes; empty when the installer left none.
std::wstring ClientInstallFolder();

// The folder of a user's profile, by the text of their SID. Empty optional when Windows knows of none.
std::optional<std::wstring> ProfileFolder(const std::wstring& sid);

}  // namespace kiosk::state
