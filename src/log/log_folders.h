// The log tree, which log.cpp makes and secures. Its outer folders are in win32/secure_folder.h.
#pragma once

namespace kiosk::log {

inline constexpr wchar_t kLogRoot[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs";
// Old files, and records that the central endpoint refused.
inline constexpr wchar_t kArchiveFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Archive";
// The spool of the central log, and its segments that somebody writes or sends.
inline constexpr wchar_t kDropFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Drop";
inline constexpr wchar_t kTakenFolder[] = L"C:\\ProgramData\\Norvane\\Tessaly\\Logs\\Drop\\Taken";

}  // namespace kiosk::log
