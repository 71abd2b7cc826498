// The lockdown as data. Keys are relative to the user's own part of the registry.
#pragma once

#include "win32/winapi.h"

namespace kiosk::lockdown {

struct PolicyValue {
  const wchar_t* key;
  const wchar_t* name;
  DWORD number;                   // of a REG_DWORD, when there is no text
  const wchar_t* text = nullptr;  // of a REG_SZ
};

// The kiosk user's shell: this program in the client program's folder, with this switch.
inline constexpr wchar_t kShellProgram[] = L"\\NorvaneTessalyClient.exe";
inline constexpr wchar_t kShellSwitch[] = L" --kiosk-shell";

inline constexpr wchar_t kShellKey[] = L"Software\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon";
inline constexpr wchar_t kSystem[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
inline constexpr wchar_t kExplorer[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer";
inline constexpr wchar_t kDisallowRun[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\Explorer\\DisallowRun";
inline constexpr wchar_t kActiveDesktop[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Policies\\ActiveDesktop";
inline constexpr wchar_t kDesktop[] = L"Control Panel\\Desktop";
inline constexpr wchar_t kEdge[] = L"Software\\Policies\\Microsoft\\Edge";
inline constexpr DWORD kAllDrives = 0x3FFFFFF;

// Shell and desktop, after the shell itself (whose text holds the client program's folder). The first failure ends it.
inline constexpr PolicyValue kDesktopValues[] = {
    {kSystem, L"DisableTaskMgr", 1},
    {kSystem, L"DisableLockWorkstation", 1},
    {kSystem, L"DisableChangePassword", 1},
    {kSystem, L"Wallpaper", 0, L""},
    {kSystem, L"WallpaperStyle", 0, L"0"},
    {kDesktop, L"Wallpaper", 0, L""},
    {kDesktop, L"WallpaperStyle", 0, L"0"},
    {L"Control Panel\\Colors", L"Background", 0, L"0 0 0"},
    {kActiveDesktop, L"NoChangingWallPaper", 1},
};

// Everything else; every one is tried.
inline constexpr PolicyValue kPolicyValues[] = {
    {kExplorer, L"NoRun", 1},
    {kExplorer, L"NoControlPanel", 1},
    {kExplorer, L"NoWinKeys", 1},
    {kExplorer, L"NoViewContextMenu", 1},
    {kExplorer, L"NoTrayContextMenu", 1},
    {kExplorer, L"NoLogoff", 1},
    {kExplorer, L"NoClose", 1},
    {kExplorer, L"NoSetFolders", 1},
    {kExplorer, L"NoFolderOptions", 1},
    {kExplorer, L"NoNetHood", 1},
    {kExplorer, L"DisallowRun", 1},
    {kExplorer, L"NoDrives", kAllDrives},
    {kExplorer, L"NoViewOnDrive", kAllDrives},
    {kDisallowRun, L"1", 0, L"msedge.exe"},
    {kDisallowRun, L"2", 0, L"iexplore.exe"},
    {kDisallowRun, L"3", 0, L"cmd.exe"},
    {kDisallowRun, L"4", 0, L"powershell.exe"},
    {kDisallowRun, L"5", 0, L"pwsh.exe"},
    {kDisallowRun, L"6", 0, L"powershell_ise.exe"},
    {kDisallowRun, L"7", 0, L"regedit.exe"},
    {kDisallowRun, L"8", 0, L"mmc.exe"},
    {kDisallowRun, L"9", 0, L"control.exe"},
    {kDisallowRun, L"10", 0, L"explorer.exe"},
    {kDisallowRun, L"11", 0, L"taskmgr.exe"},
    {kDisallowRun, L"12", 0, L"wscript.exe"},
    {kDisallowRun, L"13", 0, L"cscript.exe"},
    {kDisallowRun, L"14", 0, L"mshta.exe"},
    {kDisallowRun, L"15", 0, L"SystemSettings.exe"},
    {kSystem, L"DisableRegistryTools", 1},
    {kSystem, L"HideFastUserSwitching", 1},
    {kSystem, L"NoDispCPL", 1},
    {L"Software\\Policies\\Microsoft\\Windows\\System", L"DisableCMD", 1},
    {L"Software\\Policies\\Microsoft\\Edge\\URLBlocklist", L"1", 0, L"*"},
    {kEdge, L"BrowserSignin", 0},
    {kEdge, L"DeveloperToolsAvailability", 2},
    {kEdge, L"DownloadRestrictions", 3},
    {kEdge, L"InPrivateModeAvailability", 1},
    {kEdge, L"HideFirstRunExperience", 1},
    // Without the hot key of each: pressing Shift five times, or holding it, opens nothing.
    {L"Control Panel\\Accessibility\\StickyKeys", L"Flags", 0, L"506"},
    {L"Control Panel\\Accessibility\\Keyboard Response", L"Flags", 0, L"122"},
    {L"Control Panel\\Accessibility\\ToggleKeys", L"Flags", 0, L"58"},
    {L"Software\\Policies\\Microsoft\\Windows\\RemovableStorageDevices", L"Deny_All", 1},
};

}  // namespace kiosk::lockdown
